// What a picture of a 4K screen costs beyond fetching it from the X server and compressing it.
//
// A virtual X server of 3840 x 2160 shows a desktop, then noise. Each round takes a picture with a
// bare loop (fetch the image, hand its rows to the PNG library with the settings of the daemon's
// encoder) and with the daemon's capture, listing excluded. Memory is looked at in rounds of their
// own: the highest resident size over the one before. A PNG of more than 1 MiB lies in a memory
// file, which is not resident while it is written: add its size.
//
//   bench_displays [--rounds N]

#include <png.h>
#include <signal.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <chrono>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/linux/ConsoleFont.h"
#include "platform/linux/X11Displays.h"
#include "tests/platform/linux/XServerProcess.h"

namespace quillsift {

namespace {

constexpr std::uint16_t kWidth = 3840;
constexpr std::uint16_t kHeight = 2160;
constexpr double kPictureMiB = 4.0 * kWidth * kHeight / 1024 / 1024;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "bench_displays: %s\n", what);
  std::exit(1);
}

// --- the server, and a tree in which it is the only one

class Server {
 public:
  Server() {
    if (!process_.runs()) fail("Xvfb did not start");
    std::string pattern = std::filesystem::temp_directory_path() / "quillsift-bench-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) fail("mkdtemp");
    tree_ = pattern;
    std::filesystem::create_directories(tree_ + "/tmp/.X11-unix");
    std::filesystem::create_symlink(process_.socket(), tree_ + "/tmp/.X11-unix/X0");
  }
  ~Server() {
    std::error_code ignored;
    std::filesystem::remove_all(tree_, ignored);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::string display() const { return process_.display(); }
  const std::string& tree() const { return tree_; }

 private:
  testing::XServerProcess process_{"Xvfb -screen 0 " + std::to_string(kWidth) + "x" +
                                   std::to_string(kHeight) + "x24"};
  std::string tree_;
};

// --- what it shows

using Pixels = std::vector<std::uint32_t>;

void writeText(Pixels& pixels, std::size_t left, std::size_t top, std::size_t columns,
               std::size_t lines) {
  constexpr std::size_t kScale = 2;
  std::mt19937 random(1);
  for (std::size_t cell = 0; cell < columns * lines; ++cell) {
    const char32_t character =
        random() % 5 == 0 ? U' ' : static_cast<char32_t>(U'a' + random() % 26);
    const std::size_t cellLeft = left + cell % columns * ConsoleFont::kWidth * kScale;
    const std::size_t cellTop = top + cell / columns * ConsoleFont::kHeight * kScale;
    for (std::size_t y = 0; y < ConsoleFont::kHeight * kScale; ++y) {
      for (std::size_t x = 0; x < ConsoleFont::kWidth * kScale; ++x) {
        const bool isLit =
            (ConsoleFont::row(character, y / kScale) >> (ConsoleFont::kWidth - 1 - x / kScale) &
             1) != 0;
        pixels[(cellTop + y) * kWidth + cellLeft + x] = isLit ? 0xD0D0D0 : 0x101010;
      }
    }
  }
}

// Two windows of text before a background of slowly changing colour.
Pixels desktop() {
  Pixels pixels(std::size_t{kWidth} * kHeight);
  for (std::uint32_t y = 0; y < kHeight; ++y) {
    for (std::uint32_t x = 0; x < kWidth; ++x)
      pixels[y * kWidth + x] = (30 + y / 20) << 16 | (60 + y / 30) << 8 | (100 + x / 40);
  }
  writeText(pixels, 100, 100, 120, 60);
  writeText(pixels, 1700, 300, 150, 80);
  return pixels;
}

Pixels noise() {
  std::mt19937 random(1);
  Pixels pixels(std::size_t{kWidth} * kHeight);
  for (std::uint32_t& pixel : pixels)
    pixel = static_cast<std::uint32_t>(random()) & 0xFFFFFF;
  return pixels;
}

using Connection = std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)>;

Connection connectTo(const Server& server) {
  Connection connection(::xcb_connect(server.display().c_str(), nullptr), xcb_disconnect);
  if (::xcb_connection_has_error(connection.get()) != 0) fail("cannot connect to Xvfb");
  return connection;
}

xcb_screen_t* screenOf(const Connection& connection) {
  return ::xcb_setup_roots_iterator(::xcb_get_setup(connection.get())).data;
}

void show(const Server& server, const Pixels& pixels) {
  const Connection connection = connectTo(server);
  const xcb_screen_t* const screen = screenOf(connection);
  const xcb_gcontext_t context = ::xcb_generate_id(connection.get());
  ::xcb_create_gc(connection.get(), context, screen->root, 0, nullptr);
  constexpr std::uint16_t kRows = 4;  // a request must fit into 256 KiB
  for (std::uint16_t y = 0; y < kHeight; y += kRows) {
    ::xcb_put_image(connection.get(), XCB_IMAGE_FORMAT_Z_PIXMAP, screen->root, context, kWidth,
                    kRows, 0, static_cast<std::int16_t>(y), 0, screen->root_depth,
                    std::uint32_t{kWidth} * kRows * 4,
                    reinterpret_cast<const std::uint8_t*>(&pixels[std::size_t{y} * kWidth]));
  }
  std::free(::xcb_get_input_focus_reply(connection.get(), ::xcb_get_input_focus(connection.get()),
                                        nullptr));
}

// --- the bare loop

struct Freer {
  void operator()(void* memory) const { std::free(memory); }
};
using Image = std::unique_ptr<xcb_get_image_reply_t, Freer>;

Image fetch(const Connection& connection) {
  Image image(
      ::xcb_get_image_reply(connection.get(),
                            ::xcb_get_image(connection.get(), XCB_IMAGE_FORMAT_Z_PIXMAP,
                                            screenOf(connection)->root, 0, 0, kWidth, kHeight, ~0U),
                            nullptr));
  if (!image) fail("no image");
  return image;
}

// Doubles like the daemon's buffer does not: memory is what it is measured by as well.
struct Growing {
  std::unique_ptr<std::uint8_t, Freer> bytes;
  std::size_t length = 0;
  std::size_t room = 0;
};

void append(png_structp png, png_bytep bytes, std::size_t count) {
  auto* const out = static_cast<Growing*>(::png_get_io_ptr(png));
  if (out->length + count > out->room) {
    out->room = std::max(2 * out->room, out->length + count);
    auto* const grown = static_cast<std::uint8_t*>(std::realloc(out->bytes.release(), out->room));
    if (grown == nullptr) fail("no memory");
    out->bytes.reset(grown);
  }
  std::memcpy(out->bytes.get() + out->length, bytes, count);
  out->length += count;
}

std::size_t takeBare(const Server& server) {
  const Connection connection = connectTo(server);
  const Image image = fetch(connection);
  Growing out;
  png_structp png = ::png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = ::png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png)) != 0) fail("libpng");
  ::png_set_write_fn(png, &out, append, nullptr);
  ::png_set_compression_level(png, 1);
  ::png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_UP);
  ::png_set_IHDR(png, info, kWidth, kHeight, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  ::png_write_info(png, info);
  ::png_set_filler(png, 0, PNG_FILLER_AFTER);
  ::png_set_bgr(png);
  const std::uint8_t* const pixels = ::xcb_get_image_data(image.get());
  for (std::size_t y = 0; y < kHeight; ++y)
    ::png_write_row(png, pixels + y * kWidth * 4);
  ::png_write_end(png, info);
  ::png_destroy_write_struct(&png, &info);
  return out.length;
}

// --- measuring

double seconds(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

// A line "Name:   123 kB" of /proc/self/status, in MiB.
double memoryLine(const std::string& name) {
  std::ifstream lines("/proc/self/status");
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(name + ":")) return std::stod(line.substr(name.size() + 1)) / 1024;
  }
  fail("no memory line");
}

double peakOf(const std::function<void()>& work) {
  std::ofstream("/proc/self/clear_refs") << "5";  // the high-water mark begins anew
  const double before = memoryLine("VmRSS");
  work();
  return memoryLine("VmHWM") - before;
}

void row(const char* name, const char* format, double value, const char* target = "") {
  std::printf("  %-42s ", name);
  std::printf(format, value);
  std::printf("%s%s\n", *target == '\0' ? "" : "   target ", target);
}

void bench(const Server& server, const char* content, const Pixels& pixels, std::size_t rounds) {
  show(server, pixels);
  X11Displays displays(std::make_shared<const PlatformTree>(server.tree()));
  std::vector<ActiveDisplay> listed;
  if (displays.list(&listed) != 0 || listed.size() != 1) fail("the display is not listed");
  const auto take = [&] {
    const auto image = displays.capture(listed[0]);
    const auto png = image ? image->encodeAsPNG() : std::nullopt;
    if (!png) fail("no picture");
    return png->length();
  };
  const double peak = peakOf(take);
  const double barePeak = peakOf([&] { takeBare(server); });
  std::vector<double> fetching, bare, whole;
  std::size_t length = 0;
  std::size_t bareLength = 0;
  for (std::size_t round = 0; round < rounds; ++round) {
    fetching.push_back(seconds([&] { fetch(connectTo(server)); }));
    bare.push_back(seconds([&] { bareLength = takeBare(server); }));
    whole.push_back(seconds([&] { length = take(); }));
  }
  const auto lengthMiB = static_cast<double>(length) / 1024 / 1024;
  std::printf("%s: %u x %u, median of %zu rounds\n", content, kWidth, kHeight, rounds);
  row("fetching the image alone", "%8.1f ms ", 1000 * median(fetching));
  row("bare loop", "%8.1f ms ", 1000 * median(bare));
  row("capture and encode", "%8.1f ms ", 1000 * median(whole));
  row("time: capture / bare loop", "%8.2f    ", median(whole) / median(bare), "<= 1.20");
  row("PNG", "%8.2f MiB", lengthMiB);
  row("PNG: capture / bare loop", "%8.3f    ",
      static_cast<double>(length) / static_cast<double>(bareLength), "= 1.000");
  row("picture as fetched", "%8.1f MiB", kPictureMiB);
  row("peak memory of the bare loop", "%8.1f MiB", barePeak);
  row("peak memory", "%8.1f MiB", peak);
  row("peak memory, in pictures", "%8.2f    ", peak / kPictureMiB, "<= 1.10");
}

}  // namespace

}  // namespace quillsift

int main(int count, char** arguments) {
  using namespace quillsift;
  std::size_t rounds = 9;
  if (count == 3 && std::strcmp(arguments[1], "--rounds") == 0) {
    rounds = std::strtoul(arguments[2], nullptr, 10);
  }
  if ((count != 1 && count != 3) || rounds == 0) {
    std::fputs("usage: bench_displays [--rounds N]\n", stderr);
    return 2;
  }
  ::signal(SIGPIPE, SIG_IGN);
  const Server server;
  bench(server, "desktop", desktop(), rounds);
  bench(server, "noise", noise(), rounds);
  return 0;
}
