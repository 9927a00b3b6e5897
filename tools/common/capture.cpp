#include "capture.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace tools {
namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int64_t kLastSecond = INT64_MAX / kNanosecondsPerSecond - 1;  // that SystemTime holds

using Magic = std::array<uint8_t, 4>;
// Microseconds and nanoseconds in both byte orders, and pcapng.
constexpr Magic kMagics[] = {{0xD4, 0xC3, 0xB2, 0xA1},
                             {0xA1, 0xB2, 0xC3, 0xD4},
                             {0x4D, 0x3C, 0xB2, 0xA1},
                             {0xA1, 0xB2, 0x3C, 0x4D},
                             {0x0A, 0x0D, 0x0D, 0x0A}};

void PutBigEndian(Bytes& out, uint32_t number)
{
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<uint8_t>(number >> shift));
    }
}

void PutPseudoHeader(Bytes& out, const Record& record)
{
    out.push_back(kPseudoHeaderVersion);
    out.push_back(static_cast<uint8_t>(record.kind));
    out.push_back(static_cast<uint8_t>(record.direction));
    out.push_back(0);
    PutBigEndian(out, record.connection);
    PutBigEndian(out, static_cast<uint32_t>(record.peer.pid));
    PutBigEndian(out, record.peer.uid);
}

// libpcap counts nanoseconds in tv_usec when it has been opened for them.
timeval ToTimeval(SystemTime time)
{
    const auto count = std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
    timeval result{};
    result.tv_sec = static_cast<time_t>(count / kNanosecondsPerSecond);
    result.tv_usec = static_cast<suseconds_t>(count % kNanosecondsPerSecond);
    return result;
}

// The format's 32 bits of seconds last until 2106, but libpcap takes them for signed.
int64_t SecondsOf(const timeval& time)
{
    return time.tv_sec < 0 ? int64_t{static_cast<uint32_t>(time.tv_sec)} : int64_t{time.tv_sec};
}

SystemTime ToSystemTime(const timeval& time)
{
    const std::chrono::nanoseconds count(SecondsOf(time) * kNanosecondsPerSecond + time.tv_usec);
    return SystemTime(std::chrono::duration_cast<SystemTime::duration>(count));
}

// Whether a packet with these lengths and this time can be decoded.
bool IsSound(const pcap_pkthdr& header)
{
    return header.ts.tv_sec >= INT32_MIN && header.ts.tv_sec <= kLastSecond && header.ts.tv_usec >= 0 &&
           header.ts.tv_usec < kNanosecondsPerSecond && header.caplen >= kPseudoHeaderSize &&
           header.caplen <= header.len;
}

// Whether a frame is as long as its length field says, as far as that is stored.
bool AnnouncesItsLength(const Record& record)
{
    return record.kind != RecordKind::kFrame || record.bytes.size() < kFrameHeaderSize ||
           DecodeBigEndian(record.bytes.data()) == record.wireLength - kFrameHeaderSize;
}

// Whether a capture of this system can hold this.
bool IsSound(const Record& record)
{
    const uint64_t shortest = record.kind == RecordKind::kFrame      ? kFrameHeaderSize
                              : record.kind == RecordKind::kFragment ? 1
                                                                     : 0;
    return record.connection > 0 && record.kind <= RecordKind::kClose && record.direction <= Direction::kToWorker &&
           record.peer.pid >= 0 && record.wireLength >= shortest && AnnouncesItsLength(record);
}

Record Decode(const pcap_pkthdr& header, const uint8_t* packet)
{
    Record record;
    record.time = ToSystemTime(header.ts);
    record.kind = static_cast<RecordKind>(packet[1]);
    record.direction = static_cast<Direction>(packet[2]);
    record.connection = DecodeBigEndian(packet + 4);
    record.peer = {static_cast<pid_t>(DecodeBigEndian(packet + 8)), DecodeBigEndian(packet + 12)};
    record.wireLength = header.len - kPseudoHeaderSize;
    record.bytes.assign(packet + kPseudoHeaderSize, packet + header.caplen);
    return record;
}

std::string LinkTypeName(int type)
{
    const char* const name = pcap_datalink_val_to_name(type);
    return fmt::format("{} ({})", name == nullptr ? "unknown" : name, type);
}

}  // namespace

void FileCloser::operator()(FILE* file) const
{
    if (file != stdin) {
        fclose(file);  // NOLINT(cert-err33-c): nothing was written to it
    }
}

CaptureWriter::CaptureWriter(const std::string& path) : path_(path)
{
    File file(fopen(path.c_str(), "wbe"));
    Check(file != nullptr);
    pcap_t* const format =
        pcap_open_dead_with_tstamp_precision(DLT_USER0, static_cast<int>(kSnapLength), PCAP_TSTAMP_PRECISION_NANO);
    if (format != nullptr) {
        dumper_.reset(pcap_dump_fopen(format, file.release()));  // closes the file when it fails
        pcap_close(format);
    }
    Check(dumper_ != nullptr);
    Flush();
}

void CaptureWriter::Check(bool written) const
{
    if (!written) {
        throw ExitError(kExitFailed, fmt::format("{}: {}", path_, strerror(errno)));
    }
}

void CaptureWriter::Write(const Record& record)
{
    const size_t stored = std::min(record.bytes.size(), kSnapLength - kPseudoHeaderSize);
    packet_.clear();
    PutPseudoHeader(packet_, record);
    packet_.insert(packet_.end(), record.bytes.begin(), record.bytes.begin() + static_cast<ptrdiff_t>(stored));
    pcap_pkthdr header{};
    header.ts = ToTimeval(record.time);
    header.caplen = static_cast<bpf_u_int32>(packet_.size());
    header.len = static_cast<bpf_u_int32>(std::min<uint64_t>(record.wireLength + kPseudoHeaderSize, UINT32_MAX));
    pcap_dump(reinterpret_cast<u_char*>(dumper_.get()), &header, packet_.data());
    Check(ferror(pcap_dump_file(dumper_.get())) == 0);  // now, while errno is that of the failure
}

void CaptureWriter::Flush()
{
    Check(pcap_dump_flush(dumper_.get()) == 0);
}

CaptureReader::CaptureReader(File file)
{
    char reason[PCAP_ERRBUF_SIZE] = "";
    pcap_.reset(pcap_fopen_offline_with_tstamp_precision(file.get(), PCAP_TSTAMP_PRECISION_NANO, reason));
    if (pcap_ == nullptr) {
        throw ExitError(kExitFailed, fmt::format("not a capture: {}", Printable(reason)));
    }
    static_cast<void>(file.release());  // now libpcap's
    const int type = pcap_datalink(pcap_.get());
    if (type != DLT_USER0) {
        throw ExitError(kExitFailed, fmt::format("not a capture of control messages: its link type is {} instead of "
                                                 "USER0 ({})",
                                                 LinkTypeName(type), DLT_USER0));
    }
}

ExitError CaptureReader::Damage(const std::string& what) const
{
    return ExitError(kExitFailed, fmt::format("record {} of the capture {}", records_, what));
}

bool CaptureReader::Next(Record& record)
{
    pcap_pkthdr* header = nullptr;
    const u_char* packet = nullptr;
    const int result = pcap_next_ex(pcap_.get(), &header, &packet);
    if (result == PCAP_ERROR_BREAK) {
        return false;  // the end
    }
    ++records_;
    if (result != 1) {
        truncated_ = feof(pcap_file(pcap_.get())) != 0;
        if (!truncated_) {
            throw Damage(fmt::format("is damaged: {}", Printable(pcap_geterr(pcap_.get()))));
        }
        return false;
    }
    if (!IsSound(*header)) {
        throw Damage("is damaged");
    }
    if (packet[0] != kPseudoHeaderVersion) {
        throw Damage(fmt::format("has a pseudo-header of version {}, which is not known", packet[0]));
    }
    record = Decode(*header, packet);
    if (!IsSound(record)) {
        throw Damage("is damaged");
    }
    return true;
}

bool IsCapture(FILE* file)
{
    Magic begin{};
    const size_t count = fread(begin.data(), 1, begin.size(), file);
    for (size_t i = count; i > 0; --i) {
        ungetc(begin[i - 1], file);  // more than the one that is sure to fit: glibc and musl take back what was read
    }
    return count == begin.size() && std::find(std::begin(kMagics), std::end(kMagics), begin) != std::end(kMagics);
}

File OpenInput(const std::string& path)
{
    if (path == "-") {
        return File(stdin);
    }
    File file(fopen(path.c_str(), "rbe"));
    struct stat status {};
    if (file == nullptr || fstat(fileno(file.get()), &status) != 0) {
        throw ExitError(kExitFailed, fmt::format("{}: {}", path, strerror(errno)));
    }
    if (S_ISDIR(status.st_mode)) {
        throw ExitError(kExitFailed, fmt::format("{}: {}", path, strerror(EISDIR)));
    }
    return file;
}

}  // namespace tools
