# Builds for iOS 16.1 on arm64 with the cross compiler that scripts/iphone-tools installs. On a Mac
# the same sources build with Xcode's SDK and without this file:
#   cmake -G Ninja -B build/xcode -DCMAKE_SYSTEM_NAME=iOS -DCMAKE_OSX_ARCHITECTURES=arm64 \
#     -DCMAKE_OSX_DEPLOYMENT_TARGET=16.1 -DCMAKE_MACOSX_BUNDLE=OFF -DCMAKE_BUILD_TYPE=MinSizeRel
set(CMAKE_SYSTEM_NAME iOS)
set(CMAKE_SYSTEM_PROCESSOR arm64)

set(MORVANE_CROSS_TOOLS "${CMAKE_CURRENT_LIST_DIR}/../build/tools")
cmake_path(NORMAL_PATH MORVANE_CROSS_TOOLS)
set(CMAKE_CXX_COMPILER "${MORVANE_CROSS_TOOLS}/bin/iphone-c++")
set(CMAKE_AR "${MORVANE_CROSS_TOOLS}/bin/iphone-ar")
set(CMAKE_RANLIB "${MORVANE_CROSS_TOOLS}/bin/iphone-ranlib")
set(CMAKE_OSX_SYSROOT "${MORVANE_CROSS_TOOLS}/iPhoneOS")  # CMake takes no other name for one
set(CMAKE_MACOSX_BUNDLE OFF)

# Nothing is visible outside: what is, of C++, the loader would try to unite with the system's own
# C++ library, which is another version. One thread: statics need no locks. Stack protector and
# checks in the library: root reads here what untrusted apps have written. The prefix map keeps the
# builder's folders out of the binary.
string(JOIN " " CMAKE_CXX_FLAGS_INIT
  -fvisibility=hidden -fvisibility-inlines-hidden -fvisibility-global-new-delete=force-hidden
  -fno-threadsafe-statics -fno-unwind-tables -fno-asynchronous-unwind-tables
  -fstack-protector-strong
  -U_LIBCPP_HARDENING_MODE -D_LIBCPP_HARDENING_MODE=_LIBCPP_HARDENING_MODE_FAST
  -Wunguarded-availability
  "-ffile-prefix-map=${CMAKE_SOURCE_DIR}=." "-ffile-prefix-map=${MORVANE_CROSS_TOOLS}=tools")

# The signer writes one more load command behind the others. Without spare room there it would
# overwrite the first bytes of code.
string(JOIN " " CMAKE_EXE_LINKER_FLAGS_INIT
  -nostdlib++ -Wl,-headerpad,1000 -Wl,-dead_strip)
