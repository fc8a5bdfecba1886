# The platform whose bodies are built, and the compile options of everything in the project.

if(CMAKE_SYSTEM_NAME STREQUAL "iOS" OR CMAKE_SYSTEM_NAME STREQUAL "Darwin")
  set(MORVANE_PLATFORM iphone)
else()
  set(MORVANE_PLATFORM linux)
endif()

add_library(morvane_options INTERFACE)
target_compile_options(morvane_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Wnull-dereference -Wformat=2 -Wvla
  $<$<BOOL:${MORVANE_WERROR}>:-Werror>)
# g++ 12 sees overlapping copies in std::string where there are none (GCC bug 105651).
target_compile_options(morvane_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
if(MORVANE_SANITIZE)
  target_compile_options(morvane_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(morvane_options INTERFACE -fsanitize=address,undefined)
endif()

if(MORVANE_FUZZ)
  target_compile_options(morvane_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# The product neither throws nor asks for types at run time; the tests' framework does.
add_library(morvane_product_options INTERFACE)
target_link_libraries(morvane_product_options INTERFACE morvane_options)
target_compile_options(morvane_product_options INTERFACE -fno-exceptions -fno-rtti)

# morvane_part(NAME SOURCES... LINKS...): one library part of the tool.
function(morvane_part name)
  cmake_parse_arguments(PART "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} STATIC ${PART_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${PART_LINKS} PRIVATE morvane_product_options)
endfunction()
