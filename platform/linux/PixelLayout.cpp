#include "platform/linux/PixelLayout.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace quillsift {

namespace {

constexpr int kMostChannelBits = 16;

template <unsigned kBytes, bool kBigEndian>
std::uint32_t wordAt(const std::byte* stored) {
  std::uint32_t word = 0;
  for (unsigned i = 0; i < kBytes; ++i) {
    const unsigned place = kBigEndian ? kBytes - 1 - i : i;
    word |= std::to_integer<std::uint32_t>(stored[i]) << (8 * place);
  }
  return word;
}

}  // namespace

std::optional<PixelReader::Channel> PixelReader::makeChannel(std::uint32_t mask,
                                                             unsigned bytesPerPixel) {
  const int shift = std::countr_zero(mask);
  const int bits = std::popcount(mask);
  const bool together = bits != 0 && std::countl_zero(mask) + bits + shift == 32;
  if (!together || bits > kMostChannelBits || shift + bits > static_cast<int>(8 * bytesPerPixel)) {
    return std::nullopt;
  }
  Channel channel{.mask = mask, .shift = shift, .values = {}};
  const std::uint32_t most = mask >> shift;
  channel.values.reserve(most + 1);
  for (std::uint32_t value = 0; value <= most; ++value) {
    channel.values.push_back(static_cast<std::uint8_t>((value * 255 + most / 2) / most));
  }
  return channel;
}

std::optional<PixelReader> PixelReader::make(const PixelLayout& layout) {
  if (layout.bytesPerPixel < 1 || layout.bytesPerPixel > 4) return std::nullopt;
  PixelReader reader;
  reader.layout_ = layout;
  const std::array masks = {layout.redMask, layout.greenMask, layout.blueMask};
  for (std::size_t i = 0; i < masks.size(); ++i) {
    auto channel = makeChannel(masks[i], layout.bytesPerPixel);
    if (!channel) return std::nullopt;
    reader.channels_[i] = std::move(*channel);
  }
  return reader;
}

bool PixelReader::isWholeBytes() const {
  return std::ranges::all_of(channels_, &Channel::isWholeByte);
}

template <unsigned kBytes>
void PixelReader::readBytes(const std::byte* stored, std::size_t count, std::uint8_t* rgb) const {
  const auto placeOf = [this](const Channel& channel) {
    const auto place = static_cast<unsigned>(channel.shift) / 8;
    return layout_.bigEndian ? kBytes - 1 - place : place;
  };
  const unsigned red = placeOf(channels_[0]);
  const unsigned green = placeOf(channels_[1]);
  const unsigned blue = placeOf(channels_[2]);
  for (; count != 0; --count, stored += kBytes, rgb += 3) {
    rgb[0] = std::to_integer<std::uint8_t>(stored[red]);
    rgb[1] = std::to_integer<std::uint8_t>(stored[green]);
    rgb[2] = std::to_integer<std::uint8_t>(stored[blue]);
  }
}

template <unsigned kBytes, bool kBigEndian>
void PixelReader::readWords(const std::byte* stored, std::size_t count, std::uint8_t* rgb) const {
  for (; count != 0; --count, stored += kBytes, rgb += 3) {
    const std::uint32_t word = wordAt<kBytes, kBigEndian>(stored);
    rgb[0] = channels_[0].of(word);
    rgb[1] = channels_[1].of(word);
    rgb[2] = channels_[2].of(word);
  }
}

void PixelReader::read(const std::byte* stored, std::size_t count, std::uint8_t* rgb) const {
  const bool big = layout_.bigEndian;
  if (isWholeBytes() && layout_.bytesPerPixel == 4) return readBytes<4>(stored, count, rgb);
  if (isWholeBytes() && layout_.bytesPerPixel == 3) return readBytes<3>(stored, count, rgb);
  switch (layout_.bytesPerPixel) {
    case 1:
      return readWords<1, false>(stored, count, rgb);
    case 2:
      return big ? readWords<2, true>(stored, count, rgb) : readWords<2, false>(stored, count, rgb);
    case 3:
      return big ? readWords<3, true>(stored, count, rgb) : readWords<3, false>(stored, count, rgb);
    default:
      return big ? readWords<4, true>(stored, count, rgb) : readWords<4, false>(stored, count, rgb);
  }
}

}  // namespace quillsift
