#!/usr/bin/env bash
# Formats the C++ sources with clang-format, or with --check only reports
# files that differ from the project's style (exit 1).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
fmt=$(command -v clang-format-14 || command -v clang-format)
mapfile -t files < <(git ls-files '*.cpp' '*.h')
((${#files[@]})) || exit 0
if [[ "${1:-}" == "--check" ]]; then
  "$fmt" --dry-run -Werror "${files[@]}"
else
  "$fmt" -i "${files[@]}"
fi
