#!/usr/bin/env bash
# A program that includes every installed header builds against qxpmaint-dev and runs: with pkg-config and with CMake.
# shellcheck source=tests/package/lib.sh
. "$(dirname "$0")/lib.sh"

install_dependencies /test/old/*.deb
quietly dpkg -i /test/old/*.deb
cd "$work"

headers=$(cd "$prefix/include" && find . -name '*.h' -printf '%P\n' | sort)
[ "$(wc -l <<<"$headers")" -ge 16 ] || fail "headers are missing: $headers"
# Each header alone, so that none leans on what another includes.
for header in $headers; do
    echo "#include <$header>" >alone.cpp
    # shellcheck disable=SC2046 # flags are words
    g++ -std=c++20 -Wall -Wextra -Werror $(pkg-config --cflags qxhost) -fsyntax-only alone.cpp || fail "$header does not stand alone"
done
# One program of all, one call into each kind of interface.
{
    for header in $headers; do echo "#include <$header>"; done
    cat <<'CPP'
#include <cstdio>
#include <cstdlib>
int main() {
    int size = 0;
    unsigned char* bytes = base64Decode2("aGVsbG8=", 8, &size);
    CPString text;
    text.Format("%.*s %d", size, reinterpret_cast<char*>(bytes), QxGetTickCount() > 0 ? 1 : 0);
    std::free(bytes);
    std::puts(text.c_str());
}
CPP
} >program.cpp

# shellcheck disable=SC2046 # flags are words
g++ -std=c++20 -Wall -Wextra -Werror program.cpp -o by-pkg-config $(pkg-config --cflags --libs qxhost)
expect "built with pkg-config" "hello 1" "$(./by-pkg-config)"
expect "version of the pkg-config module" "$(dpkg-query -W -f '${source:Upstream-Version}' qxpmaint-dev)" \
    "$(pkg-config --modversion qxhost)"

cat >CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(host LANGUAGES CXX)
find_package(qxhost 1.0 REQUIRED)
add_executable(by-cmake program.cpp)
target_link_libraries(by-cmake qxhost::qxhost)
CMAKE
quietly cmake -S . -B build -DCMAKE_PREFIX_PATH="$prefix"
quietly cmake --build build
expect "built with CMake" "hello 1" "$(build/by-cmake)"
