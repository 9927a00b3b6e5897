#ifndef GAKPPC_FUZZ_INPUT_H
#define GAKPPC_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// What a fuzzing target found: a promise of the library that does not hold. Ends the program, so that the fuzzer keeps
// the input.
#define FUZZ_CHECK(promise) \
    do { \
        if (!(promise)) { \
            fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #promise); \
            abort(); \
        } \
    } while (false)

namespace gaktest {

using Bytes = std::vector<uint8_t>;

// Takes values from the head of an input. What is asked for beyond its end reads as 0 or empty: every input means
// something.
class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), left_(size) {}

    bool IsEmpty() const { return left_ == 0; }

    uint8_t Byte()
    {
        if (left_ == 0) {
            return 0;
        }
        --left_;
        return *data_++;
    }

    uint32_t Number()
    {
        uint32_t number = 0;
        for (int i = 0; i < 4; ++i) {
            number = (number << 8) | Byte();
        }
        return number;
    }

    Bytes Block(size_t size)
    {
        size = std::min(size, left_);
        Bytes block(data_, data_ + size);
        data_ += size;
        left_ -= size;
        return block;
    }

    // A length of one byte and so many bytes.
    Bytes ShortBlock() { return Block(Byte()); }
    std::string ShortText()
    {
        const Bytes block = ShortBlock();
        return std::string(block.begin(), block.end());
    }

    Bytes Rest() { return Block(left_); }

private:
    const uint8_t* data_;
    size_t left_;
};

}  // namespace gaktest

// What each target defines; called by libFuzzer and by replay_main.cpp.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

#endif
