#include "vel/client_tavora.h"

#include "vel/tarn_client.h"

namespace VEL {

VELClientTavora::~VELClientTavora() = default;

int32_t VELClientTavora::getNodeInfoFromRemote(const std::string&, VELFileInfoWrap*) { return -18; }
int32_t VELClientTavora::syncNodeFromRemote(const std::string&, VELFileInfoMap*) { return -18; }
int32_t VELClientTavora::putFileToRemote(const std::string&) { return -18; }
int32_t VELClientTavora::removeObjectOnRemote(const std::string&) { return -18; }
int32_t VELClientTavora::syncTreeFromRemote(const std::string&) { return -18; }
int32_t VELClientTavora::listDir(const std::string&, int32_t, bool, std::list<std::string>& names) {
  names.clear();
  return 0;
}
int32_t VELClientTavora::newDir(const std::string&, uint32_t, bool) { return -18; }
int32_t VELClientTavora::delDir(const std::string&, bool) { return -18; }
int32_t VELClientTavora::rename(const std::string&, const std::string&) { return -6; }
int32_t VELClientTavora::RenameDir(const std::string&, const std::string&) { return -18; }
int32_t VELClientTavora::renameCache(const std::string&, const std::string&) { return -6; }
int32_t VELClientTavora::chmod(const std::string&, uint32_t) { return -6; }
int32_t VELClientTavora::stat(const std::string&, VELFileInfoWrap** out) {
  return out == nullptr ? -4 : -18;
}
int32_t VELClientTavora::forgetNode(const std::string&) { return 0; }
int32_t VELClientTavora::doSyncNodeFromRemote(const VELFileInfo&, VELFileInfoMap*) { return -18; }
int32_t VELClientTavora::DealNotFile(const std::string&, const VELFileInfo&, struct stat*) {
  return -20;
}
int32_t VELClientTavora::syncCurrentPath(const std::string&, bool, std::list<std::string>&) {
  return -18;
}
int32_t VELClientTavora::getSubDirOrFileList(const std::string&, bool, int32_t, bool,
                                             std::list<std::string>& names) {
  names.clear();
  return 0;
}
std::unique_ptr<TarnClient> VELClientTavora::TarnGetClient() { return nullptr; }

}  // namespace VEL
