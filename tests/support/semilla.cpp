#include "support/semilla.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

namespace testsupport {

uint64_t semillaDeLaPrueba() {
  const char* dada = std::getenv("CODPOSTALES_SEMILLA");
  const uint64_t semilla = dada ? std::strtoull(dada, nullptr, 10) : std::random_device{}();
  std::printf("semilla %llu (CODPOSTALES_SEMILLA=%llu la repite)\n", static_cast<unsigned long long>(semilla),
              static_cast<unsigned long long>(semilla));
  ::testing::Test::RecordProperty("semilla", std::to_string(semilla));
  return semilla;
}

}  // namespace testsupport
