// For targets that read a stream: the same input, with the stream that it makes cut in two.

#pragma once

#include <cstddef>
#include <cstdint>

// As LLVMFuzzerTestOneInput(), with the stream cut at its byte AT, from 1. False when it is not longer than that.
extern "C" bool fuzzSplitInput(const std::uint8_t *data, std::size_t size, std::size_t at) __attribute__((weak));
