#include "sync/detect.h"

#include <time.h>

namespace velagent {
namespace sync {

namespace {

constexpr long long kFineTickNs = 50LL * 1000 * 1000;
constexpr long long kCoarseTickNs = 2LL * 1000 * 1000 * 1000;

}  // namespace

long long nanosOf(const struct timespec& t) {
  return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

long long nowNanos() {
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  return nanosOf(now);
}

Side mirrorAgainst(const RecordEntry& record, const struct stat& st) {
  if (static_cast<long long>(st.st_size) != record.mirrorSize) {
    return Side::kChanged;
  }
  if (record.mirrorSettled && record.mirrorInode != 0 && st.st_ino == record.mirrorInode &&
      nanosOf(st.st_mtim) == record.mirrorMtimeNs) {
    return Side::kUnchanged;
  }
  return Side::kUnsure;
}

bool mirrorStampSettled(const struct stat& st, long long nowNs) {
  long long tick = st.st_mtim.tv_nsec == 0 ? kCoarseTickNs : kFineTickNs;
  return nowNs - nanosOf(st.st_mtim) >= tick;
}

Side serviceAgainst(const RecordEntry& record, const StoreStat& st) {
  if (st.version.empty()) {
    return Side::kUnsure;
  }
  if (st.version != record.version) {
    return Side::kChanged;
  }
  return record.settled && st.settled ? Side::kUnchanged : Side::kUnsure;
}

}  // namespace sync
}  // namespace velagent
