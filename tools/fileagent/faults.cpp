#include "faults.h"

#include <signal.h>

namespace velagent {

namespace {

thread_local ArmedFaults armed;

}  // namespace

void armFaults(const ArmedFaults& faults) { armed = faults; }

void disarmFaults() { armed = ArmedFaults(); }

void crashPoint(const char* point) {
  if (!armed.crashAt.empty() && armed.crashAt == point) {
    ::raise(SIGKILL);
  }
}

bool recordWritesFail() { return armed.recordFails; }

StoreFault armedStoreFault() { return armed.store; }

}  // namespace velagent
