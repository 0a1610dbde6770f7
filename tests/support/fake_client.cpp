#include "support/fake_client.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include <sstream>

#include "client/instance_internal.h"
#include "vel/log.h"
#include "vel/paths.h"

namespace veltest {

FakeClient::FakeClient(const std::string& root, bool local) : localOnly(local) {
  ownConfig.velRoot = root;
  ownConfig.clientType = local ? "Local" : "Tavora";
  attachConfig(&ownConfig);
  missingNode.errNo = -11;
}

int32_t FakeClient::record(const std::string& name, const std::string& args) {
  calls.push_back(name + "(" + args + ")");
  auto it = results.find(name);
  return it == results.end() ? 0 : it->second;
}

void FakeClient::moveMirror(const std::string& src, const std::string& dst) {
  if (renameMovesMirror) {
    std::rename(VEL::getMirrorPath(src).c_str(), VEL::getMirrorPath(dst).c_str());
  }
}

int32_t FakeClient::start() { return record("start", ""); }
int32_t FakeClient::stop() { return record("stop", ""); }
int32_t FakeClient::release() { return record("release", ""); }
void FakeClient::notify() { record("notify", ""); }

int32_t FakeClient::getNodeInfoFromRemote(const std::string& path, VEL::VELFileInfoWrap*) {
  return record("getNodeInfoFromRemote", path);
}
int32_t FakeClient::syncNodeFromRemote(const std::string& path, VEL::VELFileInfoMap*) {
  return record("syncNodeFromRemote", path);
}
int32_t FakeClient::putFileToRemote(const std::string& path) {
  return record("putFileToRemote", path);
}
int32_t FakeClient::removeObjectOnRemote(const std::string& path) {
  return record("removeObjectOnRemote", path);
}
int32_t FakeClient::syncTreeFromRemote(const std::string& path) {
  return record("syncTreeFromRemote", path);
}

int32_t FakeClient::listDir(const std::string& path, int32_t maxDepth, bool filesOnly,
                            std::list<std::string>& names) {
  names.clear();
  int32_t ret = record(
      "listDir", path + "," + std::to_string(maxDepth) + "," + std::to_string(filesOnly ? 1 : 0));
  auto it = listings.find(path);
  if (ret == 0 && it != listings.end()) {
    names = it->second;
  }
  return ret;
}

int32_t FakeClient::newDir(const std::string& path, uint32_t mode, bool recursive) {
  int32_t ret =
      record("newDir", path + "," + std::to_string(mode) + "," + std::to_string(recursive ? 1 : 0));
  if (newDirMakesMirror && (ret == 0 || ret == -12)) {
    ::mkdir(VEL::getMirrorPath(path).c_str(), mode);
  }
  return ret;
}

int32_t FakeClient::delDir(const std::string& path, bool flag) {
  return record("delDir", path + "," + std::to_string(flag ? 1 : 0));
}

int32_t FakeClient::rename(const std::string& src, const std::string& dst) {
  int32_t ret = record("rename", src + "," + dst);
  if (ret == 0) {
    moveMirror(src, dst);
  }
  return ret;
}

int32_t FakeClient::RenameDir(const std::string& src, const std::string& dst) {
  int32_t ret = record("RenameDir", src + "," + dst);
  if (ret == 0) {
    moveMirror(src, dst);
  }
  return ret;
}

int32_t FakeClient::renameCache(const std::string& src, const std::string& dst) {
  return record("renameCache", src + "," + dst);
}

int32_t FakeClient::chmod(const std::string& path, uint32_t mode) {
  return record("chmod", path + "," + std::to_string(mode));
}

int32_t FakeClient::stat(const std::string& path, VEL::VELFileInfoWrap** out) {
  record("stat", path);
  auto it = nodes.find(path);
  const FakeNode& node = it == nodes.end() ? missingNode : it->second;
  if (out == nullptr) {
    return -4;
  }
  if (!node.giveWrap) {
    return node.code;
  }
  if (*out == nullptr) {
    *out = new VEL::VELFileInfoWrap();
  }
  if (node.giveRecord) {
    auto* info = new VEL::VELFileInfo();
    info->velPath = path;
    info->isFile = node.isFile;
    info->mode = node.mode;
    info->size = node.size;
    info->lastModifyTime = node.lastModifyTime;
    info->errNo = node.errNo;
    (*out)->reset(info);
  }
  return node.code;
}

size_t FakeClient::count(const std::string& prefix) const {
  size_t n = 0;
  for (const std::string& call : calls) {
    n += call.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
  }
  return n;
}

ScopedInstance::ScopedInstance(VEL::VELClient* client)
    : previous_(VEL::setInstanceForTest(client)) {}

ScopedInstance::~ScopedInstance() { VEL::setInstanceForTest(previous_); }

LogCapture::LogCapture() : env_("_APP_LOG_DIR", nullptr) {
  ::setenv("_APP_LOG_DIR", dir_.path().c_str(), 1);
  VEL::releaseLogger();
}

LogCapture::~LogCapture() { VEL::releaseLogger(); }

std::string LogCapture::text() const { return readFile(dir_.sub("velsdk.log")); }

size_t LogCapture::lines(const std::string& piece) const {
  std::istringstream in(text());
  size_t n = 0;
  for (std::string line; std::getline(in, line);) {
    n += line.find(piece) != std::string::npos ? 1 : 0;
  }
  return n;
}

void LogCapture::clear() { writeFile(dir_.sub("velsdk.log"), ""); }

}  // namespace veltest
