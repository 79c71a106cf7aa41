#include <drm_fourcc.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "platform/linux/DrmPixelFormat.h"
#include "platform/linux/KmsDisplays.h"
#include "platform/linux/LibdrmCard.h"
#include "tests/platform/linux/DecodedPicture.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using quillsift::testing::decode;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Card {
  bool drivesDisplays = true;
  std::vector<DrmCrtc> crtcs;
  std::map<std::uint32_t, DrmFramebuffer> framebuffers;
  std::vector<std::uint8_t> memory;  // of every buffer
  bool mappable = true;
};

class FakeCard : public DrmCard {
 public:
  explicit FakeCard(const Card& card) : card_(card) {}

  std::optional<std::vector<DrmCrtc>> crtcs() override {
    if (!card_.drivesDisplays) return std::nullopt;
    return card_.crtcs;
  }
  std::optional<DrmFramebuffer> framebuffer(std::uint32_t identifier) override {
    const auto found = card_.framebuffers.find(identifier);
    if (found == card_.framebuffers.end()) return std::nullopt;
    return found->second;
  }
  std::optional<DrmMapping> map(const DrmFramebuffer&) override {
    if (!card_.mappable) return std::nullopt;
    return DrmMapping{nullptr, std::as_bytes(std::span(card_.memory))};
  }

 private:
  const Card& card_;
};

constexpr DrmFramebuffer kFramebuffer{.width = 4,
                                      .height = 3,
                                      .format = DRM_FORMAT_XRGB8888,
                                      .modifier = DRM_FORMAT_MOD_LINEAR,
                                      .handle = 1,
                                      .pitch = 20,
                                      .offset = 8};
constexpr DrmCrtc kCrtc{
    .identifier = 41, .hasMode = true, .framebuffer = 7, .x = 0, .y = 0, .width = 4, .height = 3};

class KmsDisplaysTest : public ::testing::Test {
 protected:
  // A card with one display whose pixels are 0xYYXX40.
  static Card goodCard() {
    Card card{.crtcs = {kCrtc}, .framebuffers = {{7, kFramebuffer}}};
    card.memory.resize(8 + 3 * 20);
    for (std::uint8_t y = 0; y < 3; ++y) {
      for (std::uint8_t x = 0; x < 4; ++x) {
        const std::uint8_t pixel[] = {0x40, x, y, 0x99};
        std::memcpy(&card.memory[8U + y * 20U + x * 4U], pixel, sizeof(pixel));
      }
    }
    return card;
  }

  Card& plug(const std::string& name, Card card) {
    const std::string device = scratch.write("dev/dri/" + name, "");
    return cards[device] = std::move(card);
  }

  int list() {
    listed.clear();
    return displays.list(&listed);
  }
  std::vector<std::uint32_t> objects() const {
    std::vector<std::uint32_t> result;
    for (const ActiveDisplay& display : listed)
      result.push_back(display.object);
    return result;
  }

  // Whether the one display of the card is said to be readable, and is.
  bool isReadable() {
    EXPECT_EQ(list(), 0);
    if (listed.size() != 1) return false;
    const bool captured = displays.capture(listed[0]) != nullptr;
    EXPECT_EQ(listed[0].readable, captured);
    return captured;
  }

  const ScratchTree scratch;
  std::map<std::string, Card> cards;
  int openError = 0;
  KmsDisplays displays{scratch.tree(), [this](const std::string& device) {
                         errno = openError;
                         std::unique_ptr<DrmCard> card;
                         if (openError == 0) card = std::make_unique<FakeCard>(cards.at(device));
                         return card;
                       }};
  std::vector<ActiveDisplay> listed;
};

TEST_F(KmsDisplaysTest, HasNothingToAskWithoutACard) {
  scratch.write("dev/dri/renderD128", "");
  EXPECT_EQ(list(), ENOSYS);
}

TEST_F(KmsDisplaysTest, HasNothingToAskOfACardThatDrivesNoDisplays) {
  plug("card0", {.drivesDisplays = false});
  EXPECT_EQ(list(), ENOSYS);
}

TEST_F(KmsDisplaysTest, SaysWhyACardCannotBeOpened) {
  plug("card0", goodCard());
  openError = EACCES;
  EXPECT_EQ(list(), EACCES);
  EXPECT_EQ(displays.capture({.source = scratch.at("dev/dri/card0"), .object = 41}), nullptr);
}

TEST_F(KmsDisplaysTest, ListsTheDisplaysOfAllCardsInOrder) {
  plug("card10", goodCard());
  plug("card2", goodCard()).crtcs = {kCrtc, kCrtc};
  cards.at(scratch.at("dev/dri/card2")).crtcs[0].identifier = 51;
  cards.at(scratch.at("dev/dri/card10")).crtcs[0].identifier = 31;
  EXPECT_EQ(list(), 0);
  EXPECT_THAT(objects(), ElementsAre(51, 41, 31));
  EXPECT_EQ(listed[2].source, scratch.at("dev/dri/card10"));
}

TEST_F(KmsDisplaysTest, LeavesOutWhatShowsNothing) {
  Card& card = plug("card0", goodCard());
  card.crtcs.assign(5, kCrtc);
  card.crtcs[0].hasMode = false;
  card.crtcs[1].framebuffer = 0;
  card.crtcs[2].width = 0;
  card.crtcs[3].height = 0;
  card.crtcs[4].identifier = 45;
  EXPECT_EQ(list(), 0);
  EXPECT_THAT(objects(), ElementsAre(45));
}

TEST_F(KmsDisplaysTest, AnswersWithoutADisplay) {
  plug("card0", goodCard()).crtcs.clear();
  EXPECT_EQ(list(), 0);
  EXPECT_THAT(listed, IsEmpty());
}

TEST_F(KmsDisplaysTest, TellsMirrorsByFramebufferAndOffset) {
  Card& card = plug("card0", goodCard());
  card.framebuffers[8] = kFramebuffer;
  card.crtcs.assign(5, kCrtc);
  card.crtcs[1].framebuffer = 8;                       // the same place of another one
  card.crtcs[2].width = 2;                             // the same, with a smaller mode
  card.crtcs[3].x = 1;                                 // another part
  card.crtcs[4].framebuffer = 8, card.crtcs[4].y = 1;  // both differ
  plug("card1", goodCard());                           // numbers of another card mean nothing
  EXPECT_EQ(list(), 0);
  std::vector<bool> mirrors;
  for (const ActiveDisplay& display : listed)
    mirrors.push_back(display.mirrors);
  EXPECT_THAT(mirrors, ElementsAre(false, false, true, false, false, false));
}

TEST_F(KmsDisplaysTest, CapturesAFramebuffer) {
  plug("card0", goodCard());
  ASSERT_EQ(list(), 0);
  const auto picture = decode(displays.capture(listed[0]));
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture->width, 4U);
  EXPECT_EQ(picture->height, 3U);
  EXPECT_EQ(picture->at(0, 0), 0x000040U);
  EXPECT_EQ(picture->at(3, 0), 0x000340U);
  EXPECT_EQ(picture->at(1, 2), 0x020140U);
}

TEST_F(KmsDisplaysTest, CapturesThePartThatIsShown) {
  Card& card = plug("card0", goodCard());
  card.crtcs[0].x = 1, card.crtcs[0].y = 2;
  card.crtcs[0].width = 2, card.crtcs[0].height = 1;
  ASSERT_EQ(list(), 0);
  const auto picture = decode(displays.capture(listed[0]));
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture->width, 2U);
  EXPECT_EQ(picture->height, 1U);
  EXPECT_EQ(picture->at(0, 0), 0x020140U);
}

TEST_F(KmsDisplaysTest, CapturesWhatThereIsOfAFramebufferSmallerThanTheMode) {
  Card& card = plug("card0", goodCard());
  card.crtcs[0].x = 1;
  card.crtcs[0].width = 1920, card.crtcs[0].height = 1080;
  ASSERT_EQ(list(), 0);
  const auto picture = decode(displays.capture(listed[0]));
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture->width, 3U);
  EXPECT_EQ(picture->height, 3U);
  EXPECT_EQ(picture->at(2, 2), 0x020340U);
}

TEST_F(KmsDisplaysTest, ReadsBuffersWithoutAnyWordOnTheirArrangement) {
  plug("card0", goodCard()).framebuffers[7].modifier = std::nullopt;
  EXPECT_TRUE(isReadable());
}

TEST_F(KmsDisplaysTest, RefusesTiledBuffers) {
  Card& card = plug("card0", goodCard());
  for (const std::uint64_t modifier :
       {I915_FORMAT_MOD_X_TILED, I915_FORMAT_MOD_Y_TILED, DRM_FORMAT_MOD_BROADCOM_VC4_T_TILED,
        DRM_FORMAT_MOD_INVALID}) {
    card.framebuffers[7].modifier = modifier;
    EXPECT_FALSE(isReadable());
  }
}

TEST_F(KmsDisplaysTest, RefusesFormatsItCannotRead) {
  Card& card = plug("card0", goodCard());
  for (const std::uint32_t format :
       std::initializer_list<std::uint32_t>{DRM_FORMAT_NV12, DRM_FORMAT_C8, 0}) {
    card.framebuffers[7].format = format;
    EXPECT_FALSE(isReadable());
  }
}

TEST_F(KmsDisplaysTest, RefusesFramebuffersThatCannotBe) {
  const auto refuses = [this](auto change) {
    Card& card = plug("card0", goodCard());
    change(card.framebuffers[7], card.crtcs[0]);
    return !isReadable();
  };
  EXPECT_TRUE(refuses([](DrmFramebuffer& framebuffer, DrmCrtc&) { framebuffer.handle = 0; }));
  EXPECT_TRUE(refuses([](DrmFramebuffer& framebuffer, DrmCrtc&) { framebuffer.pitch = 15; }));
  EXPECT_TRUE(refuses([](DrmFramebuffer& framebuffer, DrmCrtc&) { framebuffer.width = 0; }));
  EXPECT_TRUE(refuses([](DrmFramebuffer&, DrmCrtc& crtc) { crtc.x = 4; }));
  EXPECT_TRUE(refuses([](DrmFramebuffer&, DrmCrtc& crtc) { crtc.y = 3; }));
  EXPECT_TRUE(refuses([](DrmFramebuffer&, DrmCrtc& crtc) { crtc.framebuffer = 99; }));
  EXPECT_TRUE(refuses([](DrmFramebuffer& framebuffer, DrmCrtc& crtc) {
    framebuffer.width = framebuffer.height = crtc.width = crtc.height = 0x10000;
    framebuffer.pitch = 0x40000;
  }));
}

TEST_F(KmsDisplaysTest, CapturesNothingOfABufferThatCannotBeMapped) {
  Card& card = plug("card0", goodCard());
  ASSERT_EQ(list(), 0);
  card.mappable = false;
  EXPECT_EQ(displays.capture(listed[0]), nullptr);
}

TEST_F(KmsDisplaysTest, CapturesNothingOfAMappingThatIsTooShort) {
  Card& card = plug("card0", goodCard());
  ASSERT_EQ(list(), 0);
  card.memory.resize(8 + 2 * 20 + 16);  // what the last row takes without its padding
  EXPECT_NE(displays.capture(listed[0]), nullptr);
  card.memory.resize(8 + 2 * 20 + 15);
  EXPECT_EQ(displays.capture(listed[0]), nullptr);
}

TEST_F(KmsDisplaysTest, CapturesNothingOfADisplayThatHasGone) {
  Card& card = plug("card0", goodCard());
  ASSERT_EQ(list(), 0);
  card.crtcs[0].hasMode = false;
  EXPECT_EQ(displays.capture(listed[0]), nullptr);
  card.crtcs.clear();
  EXPECT_EQ(displays.capture(listed[0]), nullptr);
  card.drivesDisplays = false;
  EXPECT_EQ(displays.capture(listed[0]), nullptr);
}

TEST(DrmPixelFormatTest, KnowsTheFormatsOfDisplays) {
  const PixelLayout xrgb{4, false, 0xFF0000, 0xFF00, 0xFF};
  EXPECT_EQ(pixelLayoutOf(DRM_FORMAT_XRGB8888), xrgb);
  EXPECT_EQ(pixelLayoutOf(DRM_FORMAT_ARGB8888), xrgb);
  EXPECT_EQ(pixelLayoutOf(DRM_FORMAT_XRGB8888 | DRM_FORMAT_BIG_ENDIAN),
            (PixelLayout{4, true, 0xFF0000, 0xFF00, 0xFF}));
  EXPECT_EQ(pixelLayoutOf(DRM_FORMAT_XBGR8888), (PixelLayout{4, false, 0xFF, 0xFF00, 0xFF0000}));
  EXPECT_EQ(pixelLayoutOf(DRM_FORMAT_BGRX8888),
            (PixelLayout{4, false, 0xFF00, 0xFF0000, 0xFF000000}));
  EXPECT_EQ(pixelLayoutOf(DRM_FORMAT_RGB565), (PixelLayout{2, false, 0xF800, 0x7E0, 0x1F}));
  EXPECT_EQ(pixelLayoutOf(DRM_FORMAT_RGB888), (PixelLayout{3, false, 0xFF0000, 0xFF00, 0xFF}));
  EXPECT_EQ(pixelLayoutOf(DRM_FORMAT_XRGB2101010),
            (PixelLayout{4, false, 0x3FF00000, 0xFFC00, 0x3FF}));
  for (const std::uint32_t format :
       {DRM_FORMAT_RGBX8888, DRM_FORMAT_RGBA8888, DRM_FORMAT_BGRA8888, DRM_FORMAT_ABGR8888,
        DRM_FORMAT_ARGB2101010, DRM_FORMAT_XBGR2101010, DRM_FORMAT_ABGR2101010, DRM_FORMAT_BGR888,
        DRM_FORMAT_BGR565, DRM_FORMAT_XRGB1555, DRM_FORMAT_ARGB1555, DRM_FORMAT_XBGR1555,
        DRM_FORMAT_RGB332}) {
    const auto layout = pixelLayoutOf(format);
    ASSERT_TRUE(layout);
    EXPECT_TRUE(PixelReader::make(*layout));
  }
  EXPECT_EQ(pixelLayoutOf(DRM_FORMAT_YUYV), std::nullopt);
  EXPECT_EQ(pixelLayoutOf(DRM_FORMAT_XBGR16161616F), std::nullopt);
}

TEST(LibdrmCardTest, FailsOnWhatIsNoCard) {
  const ScratchTree scratch;
  EXPECT_EQ(LibdrmCard::open(scratch.at("card0")), nullptr);
  EXPECT_EQ(errno, ENOENT);
  const auto file = LibdrmCard::open(scratch.write("card0", ""));
  ASSERT_NE(file, nullptr);
  EXPECT_FALSE(file->crtcs());
  EXPECT_FALSE(file->framebuffer(1));
  EXPECT_FALSE(file->map(kFramebuffer));
}

}  // namespace
}  // namespace quillsift
