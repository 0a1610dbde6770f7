// Reference file agent (work in progress).
#include <cstdio>
int main() {
  std::fprintf(stderr, "velfileagent: not built yet\n");
  return 2;
}
