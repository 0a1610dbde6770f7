#include "support/temp_dir.h"

#include <dirent.h>
#include <glob.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace veltest {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/veltest.XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed for " + pattern);
  }
  path_ = pattern;
}

TempDir::~TempDir() { removeTree(path_); }

std::string TempDir::sub(const std::string& relative) const { return path_ + "/" + relative; }

ScopedEnv::ScopedEnv(const std::string& name, const char* value) : name_(name) {
  if (const char* old = std::getenv(name.c_str())) {
    had_ = true;
    old_ = old;
  }
  if (value != nullptr) {
    ::setenv(name.c_str(), value, 1);
  } else {
    ::unsetenv(name.c_str());
  }
}

ScopedEnv::~ScopedEnv() {
  if (had_) {
    ::setenv(name_.c_str(), old_.c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool pathExists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

int permissionsOf(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    return -1;
  }
  return static_cast<int>(st.st_mode & 07777);
}

void makeDirs(const std::string& path, mode_t mode) {
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos == path.size() || path[pos] == '/') {
      ::mkdir(path.substr(0, pos).c_str(), mode);
    }
  }
}

void plant(const std::string& root, const std::vector<Planted>& files) {
  for (const Planted& file : files) {
    const std::string path = root + "/" + file.rel;
    makeDirs(path.substr(0, path.rfind('/')));
    if (file.rel.back() != '/') {
      writeFile(path, file.content);
    }
    if (file.mode != 0) {
      ::chmod(path.c_str(), file.mode);
    }
  }
}

void removeTree(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) {
    return;
  }
  if (S_ISDIR(st.st_mode)) {
    ::chmod(path.c_str(), 0700);  // make a read-only directory removable
    for (const std::string& name : namesIn(path)) {
      removeTree(path + "/" + name);
    }
    ::rmdir(path.c_str());
  } else {
    ::unlink(path.c_str());
  }
}

std::vector<std::string> namesIn(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* dir = ::opendir(path.c_str())) {
    while (struct dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") {
        names.push_back(name);
      }
    }
    ::closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> matching(const std::string& pattern) {
  glob_t found{};
  std::vector<std::string> paths;
  if (::glob(pattern.c_str(), 0, nullptr, &found) == 0) {
    paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  }
  ::globfree(&found);
  return paths;
}

namespace {

void walk(const std::string& root, const std::string& rel, Tree& tree) {
  for (const std::string& name : namesIn(rel.empty() ? root : root + "/" + rel)) {
    const std::string path = rel.empty() ? name : rel + "/" + name;
    const std::string full = root + "/" + path;
    struct stat st;
    if (::lstat(full.c_str(), &st) != 0) {
      continue;
    }
    Node& node = tree[path];
    node.mode = static_cast<int>(st.st_mode & 07777);
    if (S_ISDIR(st.st_mode)) {
      node.type = 'd';
      walk(root, path, tree);
    } else if (S_ISLNK(st.st_mode)) {
      node.type = 'l';
      char target[4096];
      ssize_t n = ::readlink(full.c_str(), target, sizeof target);
      node.content.assign(target, n > 0 ? static_cast<size_t>(n) : 0);
    } else {
      node.type = 'f';
      node.content = readFile(full);
    }
  }
}

}  // namespace

Tree snapshot(const std::string& root) {
  Tree tree;
  walk(root, "", tree);
  return tree;
}

}  // namespace veltest
