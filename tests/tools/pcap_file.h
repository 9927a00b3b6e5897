#ifndef GAKPPC_PCAP_FILE_H
#define GAKPPC_PCAP_FILE_H

#include <cstdint>
#include <fstream>
#include <string>

#include "raw_peer.h"

// Captures, byte by byte as docs/wire-format.md describes them, without libpcap.
namespace gaktest {

constexpr uint32_t kNanosecondMagic = 0xA1B23C4D;
constexpr uint32_t kMicrosecondMagic = 0xA1B2C3D4;
constexpr size_t kPcapHeaderSize = 24;
constexpr size_t kPacketHeaderSize = 16;

struct PcapFormat {
    uint32_t magic = kNanosecondMagic;
    bool bigEndian = false;
    uint32_t linkType = 147;
    uint32_t snapLength = 262144;
};

// A record and the pseudo-header in front of it.
struct PcapRecord {
    uint8_t kind = 1;  // 0 opened, 1 frame, 2 no frame, 3 closed
    uint8_t direction = 0;
    uint32_t connection = 1;
    uint32_t pid = 4711;
    uint32_t uid = 1000;
    Bytes bytes;
    uint32_t cut = 0;  // bytes that were on the wire after these
    uint8_t version = 1;
    uint32_t seconds = 1;
    uint32_t fraction = 0;
};

class PcapFile {
public:
    explicit PcapFile(const PcapFormat& format = {}) : bigEndian_(format.bigEndian)
    {
        for (const uint32_t word :
             {format.magic, bigEndian_ ? 0x00020004U : 0x00040002U, 0U, 0U, format.snapLength, format.linkType}) {
            Put(word);
        }
    }

    PcapFile& AddPacket(const Bytes& packet, uint32_t originalLength, uint32_t seconds = 1, uint32_t fraction = 0)
    {
        for (const uint32_t word : {seconds, fraction, static_cast<uint32_t>(packet.size()), originalLength}) {
            Put(word);
        }
        bytes_.insert(bytes_.end(), packet.begin(), packet.end());
        return *this;
    }

    PcapFile& Add(const PcapRecord& record)
    {
        Bytes packet{record.version, record.kind, record.direction, 0};
        for (const uint32_t word : {record.connection, record.pid, record.uid}) {
            for (int shift = 24; shift >= 0; shift -= 8) {
                packet.push_back(static_cast<uint8_t>(word >> shift));
            }
        }
        packet.insert(packet.end(), record.bytes.begin(), record.bytes.end());
        return AddPacket(packet, static_cast<uint32_t>(packet.size()) + record.cut, record.seconds, record.fraction);
    }

    const Bytes& bytes() const { return bytes_; }

private:
    void Put(uint32_t word)
    {
        for (int i = 0; i < 4; ++i) {
            bytes_.push_back(static_cast<uint8_t>(word >> 8 * (bigEndian_ ? 3 - i : i)));
        }
    }

    const bool bigEndian_;
    Bytes bytes_;
};

inline void WriteFile(const std::string& path, const Bytes& bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace gaktest

#endif
