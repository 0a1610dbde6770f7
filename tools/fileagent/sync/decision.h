// The sync decision table: what a command does with one path, given what
// changed on each side since the sync record was written. A pure function
// of its inputs, with no I/O: the command layer detects the facts (the
// mirror copy against the record, the service's version against the
// record), asks, and acts; where the answer needs a fact it does not have
// yet (has the mirror copy's content changed? what does the service hold?
// are the two the same bytes?) the table asks for it first, and the command
// layer asks again once it knows.
//
// The rules, in short:
//  - nothing is copied that did not change;
//  - an edit is never lost: a mirror copy that no record vouches for is
//    never overwritten (it is kept aside first), and a change of the
//    service is never overwritten by an upload of a copy that did not see
//    it (a conflict is refused and the mirror left alone);
//  - two changes to the same bytes are no conflict (no false conflicts);
//  - a path the service lost, whose mirror copy nobody touched, leaves the
//    mirror too; an edited copy wins over the removal and stays;
//  - a path the service moved, whose copy nobody touched, moves in the
//    mirror instead of being fetched again.
//
// Thread safety: plain functions.
#ifndef VEL_TOOLS_FILEAGENT_SYNC_DECISION_H_
#define VEL_TOOLS_FILEAGENT_SYNC_DECISION_H_

namespace velagent {
namespace sync {

// One side of a path, against its record.
enum class Side {
  kAbsent,     // nothing there
  kUnchanged,  // the content the record vouches for
  kChanged,    // other content (without a record: something is there)
  kUnsure,     // there, but whether it changed is not known yet
};

// Whether the mirror copy and the service's file hold the same bytes.
enum class Contents { kUnknown, kSame, kDiffer };

struct Facts {
  bool recorded = false;  // the record has the path
  Side mirror = Side::kAbsent;
  Side service = Side::kAbsent;
  Contents contents = Contents::kUnknown;
};

enum class Action {
  // Asking for more facts first.
  kCheckMirror,   // hash the mirror copy: unchanged or changed?
  kCheckService,  // read the service's content: unchanged or changed?
  kCompare,       // both changed: the same bytes?
  // Acting.
  kNothing,            // nothing to copy; reply OK
  kRecordOnly,         // both sides hold the same bytes: write the record; reply OK
  kFetch,              // copy the service's file over the mirror's (an unchanged copy or none)
  kKeepMirror,         // the mirror copy is the newer one: keep it; reply OK
  kKeepAsideAndFetch,  // move the mirror copy aside (a kept copy), then fetch
  kSend,               // upload, on condition that the service still holds its version
  kSendNew,            // upload, on condition that nothing is at the name; the record goes
  kStale,              // nothing to send and the service is newer: reply OK, say so
  kConflict,           // refuse: the service changed differently; nothing sent or removed
  kRemove,             // remove on the service (at its version, when recorded)
  kRemoveMirror,       // removed elsewhere: the unchanged mirror copy and its record go
  kForget,             // the record goes; the mirror copy (if any) stays as a new file
  kMoveMirror,         // moved elsewhere: the unchanged mirror copy follows, with its record
};

// tarn.downloadlocal of a file the service has (service is not kAbsent).
Action decideDownload(const Facts& facts);
// tarn.uploadlocal of a file the mirror has (mirror is not kAbsent).
Action decideUpload(const Facts& facts);
// tarn.remove of a file (the mirror plays no part).
Action decideRemove(const Facts& facts);
// A recorded path that a listing of the service no longer shows (service
// is kAbsent); `movedTo` when a new name of the same listing carries its
// version, and that name is free in the mirror.
Action decideGone(const Facts& facts, bool movedTo);

const char* actionName(Action action);

}  // namespace sync
}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SYNC_DECISION_H_
