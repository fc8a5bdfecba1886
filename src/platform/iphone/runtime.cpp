// The parts of the C++ runtime that this tool decides for itself. It neither throws nor catches, so
// there is nothing to do about lack of memory but to end; with that said here, the linked binary
// holds no unwinder, no demangler and no thread primitives.

#include <__verbose_abort>
#include <cstdlib>
#include <new>

namespace {

void* allocate(std::size_t size) { return std::malloc(size == 0 ? 1 : size); }

}  // namespace

void* operator new(std::size_t size) {
  void* memory = allocate(size);
  if (!memory) std::abort();
  return memory;
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return allocate(size);
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept { std::free(memory); }

// Where libc++ would throw, or finds itself misused.
void std::__libcpp_verbose_abort(const char* /*format*/, ...) noexcept { std::abort(); }
