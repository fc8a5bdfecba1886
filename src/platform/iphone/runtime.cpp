// The parts of the C++ runtime that this tool brings itself. It neither throws nor catches: without
// memory, and without a handler that finds some, it ends. With that said here the linked binary
// holds no unwinder, no demangler and no thread primitives.

#include <time.h>

#include <__verbose_abort>
#include <chrono>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

std::new_handler newHandler = nullptr;

void* allocate(std::size_t size) {
  return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

std::new_handler std::set_new_handler(std::new_handler handler) noexcept {
  return std::exchange(newHandler, handler);
}

void* operator new(std::size_t size) {
  for (;;) {
    if (void* memory = allocate(size)) return memory;
    if (!newHandler) std::abort();
    newHandler();
  }
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return allocate(size);
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  std::free(memory);
}

// Where libc++ would throw, or finds itself misused.
void std::__libcpp_verbose_abort(const char* /*format*/, ...) noexcept {
  std::abort();
}

// The library's own source of this clock would bring its exceptions along.
std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
  return time_point(duration(static_cast<rep>(clock_gettime_nsec_np(CLOCK_MONOTONIC_RAW))));
}
