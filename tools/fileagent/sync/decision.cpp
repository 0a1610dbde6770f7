#include "sync/decision.h"

namespace velagent {
namespace sync {

namespace {

// Both sides hold something the record does not vouch for (or there is no
// record): the same bytes are no conflict; other bytes are `differ`.
Action byContents(Contents contents, Action differ) {
  switch (contents) {
    case Contents::kUnknown:
      return Action::kCompare;
    case Contents::kSame:
      return Action::kRecordOnly;
    case Contents::kDiffer:
      break;
  }
  return differ;
}

bool present(Side side) { return side != Side::kAbsent; }

}  // namespace

Action decideDownload(const Facts& f) {
  if (!present(f.service)) {
    return Action::kNothing;  // nothing to fetch (the command layer answers first)
  }
  if (!present(f.mirror)) {
    return Action::kFetch;  // a copy removed straight from the mirror comes back
  }
  if (!f.recorded) {
    // Never overwrite content that no record vouches for.
    return byContents(f.contents, Action::kKeepAsideAndFetch);
  }
  switch (f.service) {
    case Side::kUnchanged:
      return f.mirror == Side::kChanged ? Action::kKeepMirror : Action::kNothing;
    case Side::kUnsure:
      return Action::kCheckService;
    case Side::kChanged:
    case Side::kAbsent:
      break;
  }
  switch (f.mirror) {
    case Side::kUnsure:
      return Action::kCheckMirror;
    case Side::kUnchanged:
      return Action::kFetch;
    default:
      return byContents(f.contents, Action::kKeepAsideAndFetch);
  }
}

Action decideUpload(const Facts& f) {
  if (!f.recorded) {
    return present(f.service) ? byContents(f.contents, Action::kConflict) : Action::kSendNew;
  }
  switch (f.mirror) {
    case Side::kUnsure:
      return Action::kCheckMirror;
    case Side::kAbsent:
      return Action::kNothing;  // nothing to send (the command layer answers first)
    case Side::kUnchanged:
      switch (f.service) {
        case Side::kAbsent:
          return Action::kRemoveMirror;  // removed elsewhere, untouched here
        case Side::kChanged:
          return Action::kStale;
        default:
          return Action::kNothing;
      }
    case Side::kChanged:
      break;
  }
  switch (f.service) {
    case Side::kAbsent:
      return Action::kSendNew;  // the edit wins over the removal
    case Side::kUnchanged:
      return Action::kSend;
    case Side::kUnsure:
      return Action::kCheckService;
    case Side::kChanged:
      break;
  }
  return byContents(f.contents, Action::kConflict);
}

Action decideRemove(const Facts& f) {
  if (!f.recorded) {
    return Action::kRemove;
  }
  switch (f.service) {
    case Side::kAbsent:
      return Action::kForget;
    case Side::kUnchanged:
      return Action::kRemove;
    case Side::kUnsure:
      return Action::kCheckService;
    case Side::kChanged:
      break;
  }
  return Action::kConflict;  // someone else changed what is being removed
}

Action decideGone(const Facts& f, bool movedTo) {
  switch (f.mirror) {
    case Side::kAbsent:
      return Action::kForget;
    case Side::kUnsure:
      return Action::kCheckMirror;
    case Side::kUnchanged:
      return movedTo ? Action::kMoveMirror : Action::kRemoveMirror;
    case Side::kChanged:
      break;
  }
  return Action::kForget;  // the edit wins: it stays, as a new file
}

const char* actionName(Action action) {
  switch (action) {
    case Action::kCheckMirror:
      return "check the mirror copy";
    case Action::kCheckService:
      return "check the service";
    case Action::kCompare:
      return "compare";
    case Action::kNothing:
      return "nothing";
    case Action::kRecordOnly:
      return "record";
    case Action::kFetch:
      return "fetch";
    case Action::kKeepMirror:
      return "keep the mirror copy";
    case Action::kKeepAsideAndFetch:
      return "keep aside and fetch";
    case Action::kSend:
      return "send";
    case Action::kSendNew:
      return "send as new";
    case Action::kStale:
      return "stale";
    case Action::kConflict:
      return "conflict";
    case Action::kRemove:
      return "remove";
    case Action::kRemoveMirror:
      return "remove the mirror copy";
    case Action::kForget:
      return "forget";
    case Action::kMoveMirror:
      return "move the mirror copy";
  }
  return "?";
}

}  // namespace sync
}  // namespace velagent
