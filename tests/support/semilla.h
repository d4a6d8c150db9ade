// The seed of a test that draws at random: CODPOSTALES_SEMILLA=N repeats a
// run, otherwise a fresh one. Printed and kept among the test's properties,
// so a failure can be run again as it was.
#pragma once

#include <cstdint>

namespace testsupport {

uint64_t semillaDeLaPrueba();

}  // namespace testsupport
