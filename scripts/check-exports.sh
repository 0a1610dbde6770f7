#!/usr/bin/env bash
# Checks the dynamic symbol table of the shared library: every exported
# symbol belongs to the VEL namespace (functions, objects, and the type
# information, virtual tables and thunks of its classes), the public API is
# there (VEL::stat) and an internal helper is not (VEL::setInstanceForTest).
# Usage: scripts/check-exports.sh LIBRARY [NM]   (NM: e.g. aarch64-linux-gnu-nm)
set -euo pipefail
lib=$1
nm=${2:-nm}

# "ADDRESS TYPE NAME", demangled; the name may contain blanks.
symbols=$("$nm" -D --defined-only -C "$lib" | cut -d' ' -f3-)
foreign=$(grep -Ev '^((typeinfo (name )?for|vtable for|VTT for|(non-)?virtual thunk to) )?VEL::' \
  <<< "$symbols" || true)
status=0
if [[ -n $foreign ]]; then
  echo "check-exports: $lib exports symbols outside VEL:"
  sed 's/^/  /' <<< "$foreign" | head -40
  status=1
fi
if ! grep -qxF 'VEL::stat(char const*, stat*, char const*)' <<< "$symbols"; then
  echo "check-exports: $lib does not export VEL::stat"
  status=1
fi
if grep -q '^VEL::setInstanceForTest' <<< "$symbols"; then
  echo "check-exports: $lib exports the internal VEL::setInstanceForTest"
  status=1
fi
((status)) || echo "check-exports: $(wc -l <<< "$symbols") symbols, all in VEL"
exit $status
