// A small application on the vel library: it writes a file into the mirror
// and commits it, reads it back through VEL::ifstream and lists its folder.
//
//   mirror_example [local|remote]      (default: $VEL_EXAMPLE_MODE, else remote)
//
// Remote mode talks to the file agent on
// $UDS_ROOT_OSSUSER/velfileagent/velfileagent.sock; local mode works on the
// mirror alone. The mirror root is $TARN_ROOT_DIR in both. Exit status 0
// when every step did what it should, 1 otherwise.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <list>
#include <string>

#include <vel/vel.h>

namespace {

int fail(const std::string& step, int status) {
  std::cerr << "mirror_example: " << step << " failed (" << status << ")\n";
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  const char* fromEnv = std::getenv("VEL_EXAMPLE_MODE");
  const std::string mode = argc > 1 ? argv[1] : (fromEnv != nullptr ? fromEnv : "remote");
  if (mode != "local" && mode != "remote") {
    std::cerr << "usage: mirror_example [local|remote]\n";
    return 2;
  }
  const bool remote = mode == "remote";
  VEL::init({{"clientType", remote ? "Tavora" : "Local"}});

  const std::string folder = "example";
  const std::string file = folder + "/hello.txt";
  const std::string text = "written by mirror_example in " + mode + " mode";

  // Remote mode creates the folder on the service first, then in the mirror.
  int32_t status = VEL::mkdir_all(folder, 0750);
  if (status != 0) {
    return fail("mkdir_all " + folder, status);
  }

  // Closing a VEL::ofstream commits the file: in remote mode it is uploaded.
  VEL::ofstream out(file);
  if (!out.is_open()) {
    return fail("ofstream " + file, -1);
  }
  out << text << '\n';
  out.close();

  // Without its mirror copy, the file can only come back from the service.
  if (remote && ::unlink(VEL::getMirrorPath(file).c_str()) != 0) {
    return fail("unlink of the mirror copy", errno);
  }
  VEL::ifstream in(file);
  std::string line;
  if (!in.is_open() || !std::getline(in, line)) {
    return fail("ifstream " + file, -1);
  }
  in.close();
  if (line != text) {
    std::cerr << "mirror_example: read back \"" << line << "\"\n";
    return 1;
  }
  std::cout << "read back: " << line << '\n';

  // Remote mode lists the service's folder, local mode the mirror's.
  std::list<std::string> names;
  if (VEL::readDir(folder, names, false, false) != 1) {
    return fail("readDir " + folder, 0);
  }
  bool listed = false;
  for (const std::string& name : names) {
    std::cout << "listed: " << name << '\n';
    listed = listed || name == "hello.txt" || name == file;
  }
  if (!listed) {
    return fail("listing without hello.txt", 0);
  }

  VEL::finish();
  std::cout << "mirror_example: " << mode << " mode done\n";
  return 0;
}
