// Deterministic randomness for the data generators and the service
// simulator: the same sequence on every platform and standard library, which
// std::uniform_int_distribution does not promise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

// splitmix64.
class Azar {
 public:
  explicit Azar(uint64_t semilla) : s_(semilla) {}
  uint64_t siguiente() {
    uint64_t z = (s_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  size_t menor(size_t n) { return size_t(siguiente() % n); }
  double unidad() { return double(siguiente() >> 11) * 0x1.0p-53; }
  bool probable(double p) { return unidad() < p; }
  template <class T>
  const T& uno(const std::vector<T>& v) { return v[menor(v.size())]; }

 private:
  uint64_t s_;
};

// FNV-1a: a seed from a name.
inline uint64_t fnv1a(std::string_view texto) {
  uint64_t h = 0xCBF29CE484222325ull;
  for (char c : texto) h = (h ^ uint8_t(c)) * 0x100000001B3ull;
  return h;
}
