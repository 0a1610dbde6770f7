// Detection, the first step of a sync: how each side of a path stands
// against its record, from what a stat says. Pure functions; the hashing
// that settles a "maybe" is the command layer's.
//
// Thread safety: plain functions.
#ifndef VEL_TOOLS_FILEAGENT_SYNC_DETECT_H_
#define VEL_TOOLS_FILEAGENT_SYNC_DETECT_H_

#include <sys/stat.h>

#include "stores/store.h"
#include "sync/decision.h"
#include "sync/record.h"

namespace velagent {
namespace sync {

// The mirror copy `st` (a regular file) against the record: unchanged when
// its inode, size and modification time are the recorded ones and the
// record's stamp was settled; changed when its size differs; otherwise
// unsure (the same size: only the content can tell, since the library
// stamps a copy with the time of every read and editors rewrite files
// with the same bytes).
Side mirrorAgainst(const RecordEntry& record, const struct stat& st);

// Whether the stamp of a mirror copy stat'ed at `nowNs` (realtime, in
// nanoseconds) can vouch for it later: a later edit in the same clock tick
// as its modification time could otherwise keep that time. File systems
// with nanosecond stamps tick in milliseconds; one whose stamps are whole
// seconds in seconds.
bool mirrorStampSettled(const struct stat& st, long long nowNs);

// The service's file `st` against the record: changed when its version
// differs; unchanged when it is the recorded version and both reads of it
// were settled; otherwise unsure.
Side serviceAgainst(const RecordEntry& record, const StoreStat& st);

long long nanosOf(const struct timespec& t);
long long nowNanos();

}  // namespace sync
}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SYNC_DETECT_H_
