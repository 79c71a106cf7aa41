#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace quillsift {

// The messages of the kernel port as bytes. All fields are little-endian and 32 bits wide where
// nothing else is said.
namespace kernelmessage {

// A request, and the reply to it, which has its return code where the request has its argument.
inline constexpr std::size_t kBits = 0;
inline constexpr std::size_t kSize = 4;
inline constexpr std::size_t kRemotePort = 8;  // where the reply goes
inline constexpr std::size_t kLocalPort = 12;  // where the request went
inline constexpr std::size_t kVoucher = 16;
inline constexpr std::size_t kIdentifier = 20;
inline constexpr std::size_t kDataRepresentation = 24;  // 8 bytes
inline constexpr std::size_t kArgument = 32;
inline constexpr std::size_t kReturnCode = 32;
inline constexpr std::size_t kLength = 36;

inline constexpr std::uint32_t kComplexBit = 0x80000000;
inline constexpr std::uint32_t kReplyDispositionMask = 0x1F;
// Integers are little-endian, text is ASCII.
inline constexpr std::array<std::uint8_t, 8> kLittleEndian = {0, 0, 0, 0, 1, 0, 0, 0};

// The trailer: who sent the request, as the receiver was told and not as the sender says.
inline constexpr std::size_t kTrailerType = 0;
inline constexpr std::size_t kTrailerSize = 4;
inline constexpr std::size_t kTrailerAuditToken = 20;  // 32 bytes
inline constexpr std::size_t kTrailerLength = 52;

inline constexpr std::uint32_t kFirstIdentifier = 31337;
inline constexpr std::uint32_t kEventIdentifier = 31338;
inline constexpr std::uint32_t kReplyIdentifierDistance = 100;

}  // namespace kernelmessage

// Whom a message comes from; all zero for the kernel and for nobody else.
using AuditToken = std::array<std::uint32_t, 8>;

// A request as it arrived: as long as its sender made it, and the trailer apart from it, so that no
// byte of the sender's is ever taken for a part of the trailer.
struct KernelMessage {
  std::vector<std::uint8_t> request;
  std::vector<std::uint8_t> trailer;
};

using KernelReply = std::array<std::uint8_t, kernelmessage::kLength>;

// A little-endian field of a message; absent bytes count as zero.
std::uint32_t kernelMessageField(const std::uint8_t* bytes, std::size_t length, std::size_t offset);
// `offset` and the three bytes behind it must exist.
void setKernelMessageField(std::uint8_t* bytes, std::size_t offset, std::uint32_t value);

// A well-formed request, and the trailer of a sender.
std::vector<std::uint8_t> makeKernelRequest(std::uint32_t identifier, std::int32_t argument);
std::vector<std::uint8_t> makeKernelTrailer(const AuditToken& sender);

}  // namespace quillsift
