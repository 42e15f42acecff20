// What the fuzzers share. Each of them defines `fuzz`.
#pragma once

#include <string>
#include <string_view>

#include "Tests/Support/FakeControlPlane.h"
#include "Tests/Support/Sandbox.h"

// Tries one input.
void fuzz(std::string_view input);

// Ends the process with `promise` on standard error when it is not kept; the fuzzer then keeps the input.
void require(bool kept, std::string_view promise);

// One for the whole process.
const Sandbox& sandbox();

// A new one every thousand calls, for each remembers all that it was asked.
FakeControlPlane& plane();
