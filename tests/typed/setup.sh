#!/usr/bin/env bash
# scripts/setup names a package for each find_package of what it is for: without options programs, tests and the demo,
# with --bench the benchmarks, too.
set -euo pipefail
cd "$(dirname "$0")/../.."
declare -A package=([Threads]=g++ [ZLIB]=zlib1g-dev [CLI11]=libcli11-dev [fmt]=libfmt-dev [nlohmann_json]=nlohmann-json3-dev
                    [GTest]=libgtest-dev [OpenSSL]=libssl-dev [benchmark]=libbenchmark-dev [SQLite3]=libsqlite3-dev)
list() { sed -n "/^$1=(/,/)/p" scripts/setup | sed "s/^$1=(//; s/)//"; }
bad=0
named() {
  local wanted=$1 file=$2 what
  for what in $(sed -nE 's/^ *find_package\(([A-Za-z0-9_]+).*/\1/p' "$file"); do
    case " $(echo $wanted) " in
      *" ${package[$what]:-unknown} "*) ;;
      *) echo "scripts/setup names no package for $what of $file; this test may not know it yet"; bad=1 ;;
    esac
  done
}
for file in $(find CMakeLists.txt cmake programs share tests -name CMakeLists.txt -o -name '*.cmake'); do
  named "$(list packages)" "$file"
done
named "$(list packages) $(list bench)" bench/CMakeLists.txt
for program in cmake ninja-build g++ git; do
  [[ " $(list packages | tr '\n' ' ') " == *" $program "* ]] || { echo "scripts/setup does not name $program"; bad=1; }
done
exit $bad
