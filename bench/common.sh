# Shared by the engine benchmarks: builds the optimised library and the
# engine-only driver, and prepares a scratch directory with the data sets.
# Sourced from the repository root.
set -e
BUILD=build/engine-rel
WORK=build/bench-engine
DATA=../shared/data
RUN="$PWD/$BUILD/engine_run"

build_driver() {
  cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$BUILD" -j 2 --target quarlo_lib quarlo_cli quarlo >/dev/null
  g++ -std=c++20 -O2 -Wall -Wextra -Iinclude -Isrc -I. bench/engine_run.cpp \
    "$BUILD/libquarlo_cli.a" "$BUILD/libquarlo.a" -lpthread -o "$BUILD/engine_run"
  mkdir -p "$WORK"
  for f in chess mushroom retail T10I4D100K; do
    [ -f "$WORK/$f.dat" ] || cp "$DATA/$f.dat" "$WORK/$f.dat"
    cp "bench/tables/$f.supp" "$WORK/$f.supp"
  done
}

# The table's lowest percentage (its last line).
lowest_of() { tail -n 1 "$1" | awk '{ print $2 }'; }
