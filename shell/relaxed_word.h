#pragma once
// A plain status word shared between threads. The design has one writer at a time and readers that
// take no lock; a relaxed atomic keeps exactly that behaviour while making the sharing explicit (and
// keeps ThreadSanitizer quiet). It reads and writes like the plain word it stands for.
#include <atomic>

namespace zfn {

template <class T>
struct RelaxedWord {
  std::atomic<T> value{};

  RelaxedWord() = default;
  constexpr RelaxedWord(T v) : value(v) {}  // NOLINT: implicit, like the plain word
  RelaxedWord(const RelaxedWord&) = delete;
  RelaxedWord& operator=(const RelaxedWord&) = delete;

  T load() const { return value.load(std::memory_order_relaxed); }
  void store(T v) { value.store(v, std::memory_order_relaxed); }
  operator T() const { return load(); }  // NOLINT
  RelaxedWord& operator=(T v) {
    store(v);
    return *this;
  }
};

}  // namespace zfn
