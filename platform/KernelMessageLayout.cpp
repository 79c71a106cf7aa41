#include "platform/KernelMessageLayout.h"

#include <algorithm>

namespace quillsift {

std::uint32_t kernelMessageField(const std::uint8_t* bytes, std::size_t length,
                                 std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < sizeof(value) && offset + i < length; ++i) {
    value |= std::uint32_t{bytes[offset + i]} << (8 * i);
  }
  return value;
}

void setKernelMessageField(std::uint8_t* bytes, std::size_t offset, std::uint32_t value) {
  for (std::size_t i = 0; i < sizeof(value); ++i) {
    bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

std::vector<std::uint8_t> makeKernelRequest(std::uint32_t identifier, std::int32_t argument) {
  using namespace kernelmessage;
  std::vector<std::uint8_t> request(kLength);
  setKernelMessageField(request.data(), kSize, kLength);
  setKernelMessageField(request.data(), kIdentifier, identifier);
  std::copy(kLittleEndian.begin(), kLittleEndian.end(), request.begin() + kDataRepresentation);
  setKernelMessageField(request.data(), kArgument, static_cast<std::uint32_t>(argument));
  return request;
}

std::vector<std::uint8_t> makeKernelTrailer(const AuditToken& sender) {
  using namespace kernelmessage;
  std::vector<std::uint8_t> trailer(kTrailerLength);
  setKernelMessageField(trailer.data(), kTrailerSize, kTrailerLength);
  for (std::size_t i = 0; i < sender.size(); ++i) {
    setKernelMessageField(trailer.data(), kTrailerAuditToken + 4 * i, sender[i]);
  }
  return trailer;
}

}  // namespace quillsift
