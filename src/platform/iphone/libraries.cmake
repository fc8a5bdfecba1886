# What the phone's bodies need, and how the C++ library gets into the binary.
set(MORVANE_PLATFORM_EXTRA ${MORVANE_PLATFORM}/cf.cpp)
if(NOT MORVANE_CROSS_TOOLS)
  set(MORVANE_PLATFORM_LIBRARIES
    "-framework CoreFoundation" "-framework Security" objc icucore)
  return()
endif()

# The cross compiler's own build of libc++ throws, so it brings an unwinder and a demangler along:
# twice the size of this tool. Of its sources the tool needs these few, and its own runtime.cpp.
set(libcxx ${MORVANE_CROSS_TOOLS}/zig/ziglang/lib/libcxx)
add_library(morvane_libcxx STATIC ${libcxx}/src/string.cpp)
target_include_directories(morvane_libcxx PRIVATE ${libcxx}/src)
target_compile_definitions(morvane_libcxx PRIVATE _LIBCPP_BUILDING_LIBRARY)
target_compile_options(morvane_libcxx PRIVATE -w -fno-exceptions -fno-rtti)
file(GLOB stubs ${PROJECT_SOURCE_DIR}/cmake/iphone/lib/*.tbd)
set_target_properties(morvane_libcxx PROPERTIES
  CXX_STANDARD 23 INTERFACE_LINK_DEPENDS "${stubs}")

list(APPEND MORVANE_PLATFORM_EXTRA ${MORVANE_PLATFORM}/runtime.cpp)
set(MORVANE_PLATFORM_LIBRARIES
  -L/usr/lib -lCoreFoundation -lSecurity -lobjc -licucore morvane_libcxx)
