// A capture file, read, shown and written again. Whatever its bytes are, it is read to its end, is cut, or is refused
// with an error; a record that was read is decoded and shown, and says the same when it has been written and read.

#include <sys/mman.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <utility>

#include "common/capture.h"
#include "fuzz_input.h"

namespace {

// The first second that a pcap file cannot hold.
constexpr tools::SystemTime kEndOfTime{std::chrono::seconds(int64_t{1} << 32)};

// A file in memory.
std::string CopyPath()
{
    static const int fd = memfd_create("copy", MFD_CLOEXEC);
    return "/proc/self/fd/" + std::to_string(fd);
}

// The records in JSON, with their bytes.
std::string ShowAll(tools::File file, tools::CaptureWriter* copy)
{
    std::string text;
    tools::CaptureReader reader(std::move(file));
    for (tools::Record record; reader.Next(record);) {
        FUZZ_CHECK(record.bytes.size() <= record.wireLength);
        FUZZ_CHECK(record.bytes.size() <= tools::kSnapLength - tools::kPseudoHeaderSize);
        Show(record, {});
        if (record.time >= kEndOfTime) {
            continue;  // pcapng goes on
        }
        text += Show(record, {true, true, false});
        if (copy != nullptr) {
            copy->Write(record);
        }
    }
    return text;
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    try {
        tools::File file(fmemopen(const_cast<uint8_t*>(data), size, "rb"));
        tools::IsCapture(file.get());
        std::string text;
        {
            tools::CaptureWriter copy(CopyPath());
            text = ShowAll(std::move(file), &copy);
            copy.Flush();
        }
        FUZZ_CHECK(ShowAll(tools::OpenInput(CopyPath()), nullptr) == text);
    } catch (const tools::ExitError& error) {
        FUZZ_CHECK(error.what()[0] != '\0');
    }
    return 0;
}
