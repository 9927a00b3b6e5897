#include "capture.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "common/exit_error.h"

namespace tools {
namespace {

constexpr size_t kRecordHeaderSize = 36;
constexpr int64_t kLastTime = INT64_MAX / 1000;  // in microseconds: the last one that SystemTime holds

template <typename Number>
void Put(Bytes& out, Number number)
{
    for (size_t i = 0; i < sizeof(Number); ++i) {
        out.push_back(static_cast<uint8_t>(static_cast<uint64_t>(number) >> (8 * i)));
    }
}

template <typename Number>
Number Get(const uint8_t* bytes)
{
    uint64_t number = 0;
    for (size_t i = 0; i < sizeof(Number); ++i) {
        number |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    }
    return static_cast<Number>(number);
}

int64_t Micros(SystemTime time)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

Bytes EncodeHeader(const Record& record)
{
    Bytes out;
    out.reserve(kRecordHeaderSize);
    Put<int64_t>(out, Micros(record.time));
    Put<uint32_t>(out, record.connection);
    Put<uint8_t>(out, static_cast<uint8_t>(record.kind));
    Put<uint8_t>(out, static_cast<uint8_t>(record.direction));
    Put<uint16_t>(out, 0);
    Put<int32_t>(out, record.peer.pid);
    Put<uint32_t>(out, record.peer.uid);
    Put<uint64_t>(out, record.wireLength);
    Put<uint32_t>(out, static_cast<uint32_t>(record.bytes.size()));
    return out;
}

bool Read(std::istream& in, uint8_t* bytes, size_t count)
{
    in.read(reinterpret_cast<char*>(bytes), static_cast<std::streamsize>(count));
    return static_cast<size_t>(in.gcount()) == count;
}

// Whether a tap can have written this.
bool IsSound(const Record& record, int64_t time, uint32_t stored)
{
    const uint64_t shortest = record.kind == RecordKind::kFrame      ? kFrameHeaderSize
                              : record.kind == RecordKind::kFragment ? 1
                                                                     : 0;
    return time >= 0 && time <= kLastTime && record.connection > 0 && record.kind <= RecordKind::kClose &&
           record.direction <= Direction::kToWorker && record.peer.pid >= 0 && record.wireLength >= shortest &&
           stored == std::min<uint64_t>(record.wireLength, kMaxStored);
}

}  // namespace

const char kCaptureMagic[kCaptureMagicSize + 1] = "GAKPPCAP";

// NOLINTBEGIN(cert-err33-c): a write that failed is found by Flush

CaptureWriter::CaptureWriter(const std::string& path) : path_(path), file_(fopen(path.c_str(), "wbe"), &fclose)
{
    if (file_ == nullptr) {
        throw ExitError(kExitFailed, fmt::format("{}: {}", path, strerror(errno)));
    }
    Bytes head(kCaptureMagic, kCaptureMagic + kCaptureMagicSize);
    Put<uint32_t>(head, kCaptureVersion);
    fwrite(head.data(), 1, head.size(), file_.get());
    Flush();
}

void CaptureWriter::Write(const Record& record)
{
    const Bytes header = EncodeHeader(record);
    fwrite(header.data(), 1, header.size(), file_.get());
    if (!record.bytes.empty()) {
        fwrite(record.bytes.data(), 1, record.bytes.size(), file_.get());
    }
}

// NOLINTEND(cert-err33-c)

void CaptureWriter::Flush()
{
    if (fflush(file_.get()) != 0 || ferror(file_.get()) != 0) {
        throw ExitError(kExitFailed, fmt::format("{}: {}", path_, strerror(errno)));
    }
}

CaptureReader::CaptureReader(std::istream& in) : in_(in)
{
    uint8_t head[kCaptureMagicSize + sizeof(uint32_t)] = {};
    if (!Read(in_, head, sizeof(head)) || memcmp(head, kCaptureMagic, kCaptureMagicSize) != 0) {
        throw ExitError(kExitFailed, "not a capture: the file does not begin as one");
    }
    const auto version = Get<uint32_t>(head + kCaptureMagicSize);
    if (version != kCaptureVersion) {
        throw ExitError(kExitFailed, fmt::format("capture version {} is not known", version));
    }
}

bool CaptureReader::Next(Record& record)
{
    uint8_t header[kRecordHeaderSize] = {};
    if (!Read(in_, header, sizeof(header))) {
        truncated_ = in_.gcount() > 0;
        return false;
    }
    ++records_;
    const auto time = Get<int64_t>(header);
    record.connection = Get<uint32_t>(header + 8);
    record.kind = static_cast<RecordKind>(header[12]);
    record.direction = static_cast<Direction>(header[13]);
    record.peer = {Get<int32_t>(header + 16), Get<uint32_t>(header + 20)};
    record.wireLength = Get<uint64_t>(header + 24);
    const auto stored = Get<uint32_t>(header + 32);
    if (!IsSound(record, time, stored)) {
        throw ExitError(kExitFailed, fmt::format("record {} of the capture is damaged", records_));
    }
    record.time = SystemTime(std::chrono::microseconds(time));
    record.bytes.resize(stored);
    truncated_ = !Read(in_, record.bytes.data(), stored);
    return !truncated_;
}

bool IsCapture(const std::string& beginning)
{
    return beginning.compare(0, kCaptureMagicSize, kCaptureMagic) == 0;
}

std::ifstream OpenInput(const std::string& path)
{
    std::error_code error;
    std::ifstream in(path, std::ios::binary);
    const int reason = errno;
    if (!in || std::filesystem::is_directory(path, error)) {
        throw ExitError(kExitFailed, fmt::format("{}: {}", path, strerror(in ? EISDIR : reason)));
    }
    return in;
}

}  // namespace tools
