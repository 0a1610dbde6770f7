#include "support/fake_client.h"

#include <sys/stat.h>

#include <cstdio>
#include <sstream>

#include "vel/paths.h"

namespace veltest {

FakeClient::FakeClient(S root, bool local) : localOnly(local) {
  ownConfig.velRoot = root;
  ownConfig.clientType = local ? "Local" : "Tavora";
  attachConfig(&ownConfig);
}

int32_t FakeClient::record(S name, S args) {
  calls.push_back(name + "(" + args + ")");
  auto it = results.find(calls.back());
  if (it == results.end()) {
    it = results.find(name);
  }
  return it == results.end() ? 0 : it->second;
}

int32_t FakeClient::move(S name, S src, S dst) {
  int32_t ret = record(name, src + "," + dst);
  if (ret == 0 && renameMovesMirror) {
    std::rename(VEL::getMirrorPath(src).c_str(), VEL::getMirrorPath(dst).c_str());
  }
  return ret;
}

int32_t FakeClient::listDir(S path, int32_t maxDepth, bool filesOnly,
                            std::list<std::string>& names) {
  names.clear();
  int32_t ret = record(__func__, path + "," + std::to_string(maxDepth) + (filesOnly ? ",1" : ",0"));
  auto it = listings.find(path);
  if (ret == 0 && it != listings.end()) {
    names = it->second;
  }
  return ret;
}

int32_t FakeClient::newDir(S path, uint32_t mode, bool recursive) {
  int32_t ret = record(__func__, path + "," + std::to_string(mode) + (recursive ? ",1" : ",0"));
  if (newDirMakesMirror && (ret == 0 || ret == -12)) {
    ::mkdir(VEL::getMirrorPath(path).c_str(), mode);
  }
  return ret;
}

int32_t FakeClient::stat(S path, VEL::VELFileInfoWrap** out) {
  record(__func__, path);
  auto it = nodes.find(path);
  const FakeNode node = it == nodes.end() ? FakeNode{0, true, true, 0644, 0, 0, -11} : it->second;
  if (out == nullptr || !node.giveWrap) {
    return out == nullptr ? -4 : node.code;
  }
  if (*out == nullptr) {
    *out = new VEL::VELFileInfoWrap();
  }
  auto* info = new VEL::VELFileInfo();
  info->velPath = path;
  info->isFile = node.isFile;
  info->mode = node.mode;
  info->size = node.size;
  info->lastModifyTime = node.lastModifyTime;
  info->errNo = node.errNo;
  (*out)->reset(info);
  return node.code;
}

size_t LogCapture::lines(const std::string& piece) const {
  std::istringstream in(text());
  size_t n = 0;
  for (std::string line; std::getline(in, line);) {
    n += line.find(piece) != std::string::npos ? 1 : 0;
  }
  return n;
}

}  // namespace veltest
