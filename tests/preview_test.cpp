// The preview window under a virtual X server: its size, its picture and its close.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/command_fixture.h"
#include "tests/scene_writer.h"

// Last: its macros would clash with the names of the headers above.
#include <X11/Xlib.h>

namespace fs = std::filesystem;

namespace {
const char* insideVariable = "QZ_PREVIEW_INSIDE_XVFB";
const int width = 48, height = 24;

bool onPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::stringstream folders(path ? path : "");
  std::string folder;
  while (std::getline(folders, folder, ':'))
    if (access((folder + "/" + program).c_str(), X_OK) == 0) return true;
  return false;
}

bool waitFor(const std::function<bool()>& condition, int seconds = 30) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return condition();
}

// A window dump of xwd: a big-endian header of 32-bit fields, a colour table, then the pixels.
struct Screenshot {
  int windowWidth = 0, windowHeight = 0;
  // The dump is clipped to the screen: a window placed at (-1, -1) loses its first row and column.
  int width = 0, height = 0, offsetX = 0, offsetY = 0;
  std::vector<uint8_t> rgb;
};

Screenshot readXwd(const std::string& data) {
  Screenshot shot;
  auto field = [&](int i) {
    const auto* p = reinterpret_cast<const uint8_t*>(data.data()) + 4 * i;
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
  };
  if (data.size() < 100) return shot;
  const uint32_t headerSize = field(0), byteOrder = field(7), bitsPerPixel = field(11), bytesPerLine = field(12);
  const uint32_t masks[3] = {field(14), field(15), field(16)};
  shot.width = int(field(4)), shot.height = int(field(5));
  shot.windowWidth = int(field(20)), shot.windowHeight = int(field(21));
  shot.offsetX = shot.windowWidth - shot.width, shot.offsetY = shot.windowHeight - shot.height;
  const size_t start = headerSize + size_t(field(19)) * 12;
  if (bitsPerPixel != 32 || data.size() < start + size_t(bytesPerLine) * shot.height) return shot;
  for (int y = 0; y < shot.height; ++y)
    for (int x = 0; x < shot.width; ++x) {
      const auto* p = reinterpret_cast<const uint8_t*>(data.data()) + start + y * bytesPerLine + x * 4;
      const uint32_t v = byteOrder == 0 ? uint32_t(p[0]) | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24
                                        : uint32_t(p[3]) | p[2] << 8 | p[1] << 16 | uint32_t(p[0]) << 24;
      for (uint32_t mask : masks) shot.rgb.push_back(uint8_t((v & mask) / (mask & -mask)));
    }
  return shot;
}

// Asks the window to close as a window manager would, with Xlib loaded at run time.
bool closeWindow(const char* title) {
  void* xlib = dlopen("libX11.so.6", RTLD_NOW);
  if (!xlib) return false;
  auto openDisplay = reinterpret_cast<decltype(&XOpenDisplay)>(dlsym(xlib, "XOpenDisplay"));
  auto internAtom = reinterpret_cast<decltype(&XInternAtom)>(dlsym(xlib, "XInternAtom"));
  auto queryTree = reinterpret_cast<decltype(&XQueryTree)>(dlsym(xlib, "XQueryTree"));
  auto fetchName = reinterpret_cast<decltype(&XFetchName)>(dlsym(xlib, "XFetchName"));
  auto sendEvent = reinterpret_cast<decltype(&XSendEvent)>(dlsym(xlib, "XSendEvent"));
  auto freeMemory = reinterpret_cast<decltype(&XFree)>(dlsym(xlib, "XFree"));
  auto closeDisplay = reinterpret_cast<decltype(&XCloseDisplay)>(dlsym(xlib, "XCloseDisplay"));
  Display* display = openDisplay(nullptr);
  if (!display) return false;
  Window root, parent, *children = nullptr, target = 0;
  unsigned count = 0;
  queryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count);
  for (unsigned i = 0; i < count && !target; ++i) {
    char* name = nullptr;
    if (fetchName(display, children[i], &name) && name) {
      if (std::string(name) == title) target = children[i];
      freeMemory(name);
    }
  }
  if (children) freeMemory(children);
  if (target) {
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = target;
    event.xclient.message_type = internAtom(display, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = long(internAtom(display, "WM_DELETE_WINDOW", False));
    event.xclient.data.l[1] = CurrentTime;
    sendEvent(display, target, False, NoEventMask, &event);
  }
  closeDisplay(display);
  return target != 0;
}

std::string findBeauty(const std::string& folder) {
  for (const auto& entry : fs::directory_iterator(folder))
    if (const std::string name = entry.path().filename().string(); name.starts_with("beauty-") && name.ends_with(".hdr"))
      return entry.path().string();
  return {};
}

// The part that runs inside the virtual display.
void previewInsideDisplay() {
  const std::string work = scratchFolder("preview");
  writeSceneFile(work + "/scene/camera", "camera.qz",
                 stillCamera("  resolution " + std::to_string(width) + " " + std::to_string(height) +
                             "\n  sample 3\n"));
  writeSceneFile(work + "/scene/render", "render.qz", "render\n  gamma 2.2\nend\n");
  // A glowing panel over the upper right of the view on a black sky, so that the
  // picture has an inside, an outside and an orientation to compare.
  writeSceneFile(work + "/scene/shader", "glow.qz",
                 "shader\nname \"glow\"\nsingle_sided\nemission\ncolor 0.5 0.25 1\nend\nend\n");
  writeSceneFile(work + "/scene/light", "sky.qz", "sky_light\ncolor 0 0 0\nend\n");
  writeSceneFile(work + "/scene/geometry", "panel.obj",
                 "usemtl glow\nv -1 0 0\nv 1.5 0 0\nv 1.5 3 0\nv -1 3 0\nf 1 2 3 4\n");
  writeSceneFile(work + "/scene/geometry", "panel.qz", "object\nname panel\nobj \"geometry/panel.obj\"\nend\n");
  const std::string binary = quazelBinary();
  const std::string output = work + "/out.txt";
  const pid_t child = fork();
  if (child == 0) {
    if (chdir(work.c_str()) != 0 || !std::freopen(output.c_str(), "w", stdout)) _exit(126);
    // Under the sanitizers the GL driver's own allocations, left at exit, are not ours to report.
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    execl(binary.c_str(), binary.c_str(), "--preview", "scene", static_cast<char*>(nullptr));
    _exit(127);
  }
  ASSERT_GT(child, 0);
  // Every pass has run once the closing report is out.
  ASSERT_TRUE(waitFor([&] { return readFile(output).find("rendering time") != std::string::npos; }))
      << readFile(output);
  const std::string shotFile = work + "/window.xwd";
  ASSERT_TRUE(waitFor([&] {
    return std::system(("xwd -silent -name quazel -out '" + shotFile + "' 2>/dev/null").c_str()) == 0;
  }));
  const Screenshot shot = readXwd(readFile(shotFile));
  EXPECT_EQ(shot.windowWidth, width);
  EXPECT_EQ(shot.windowHeight, height);

  // The window shows the beauty through the display gamma.
  const std::string beautyName = findBeauty(work);
  ASSERT_FALSE(beautyName.empty());
  quietStartup();
  Image beauty;
  beauty.name = beautyName;
  ASSERT_TRUE(loadImage(beauty));
  ASSERT_EQ(shot.rgb.size(), size_t(shot.width) * shot.height * 3);
  ASSERT_GE(shot.width, width - 1);
  ASSERT_GE(shot.height, height - 1);
  int worst = 0;
  for (int y = 0; y < shot.height; ++y)
    for (int x = 0; x < shot.width; ++x) {
      const Color3f c = readPixel(beauty, (y + shot.offsetY) * width + x + shot.offsetX);
      for (int k = 0; k < 3; ++k) {
        const float shown = std::clamp(std::pow(std::max(c[k], 0.0f), 1 / 2.2f), 0.0f, 1.0f) * 255;
        worst = std::max(worst, int(std::fabs(shown - shot.rgb[(y * shot.width + x) * 3 + k])));
      }
    }
  EXPECT_LE(worst, 2);
  // Both the panel and the sky are in the picture.
  int lit = 0;
  for (size_t i = 2; i < shot.rgb.size(); i += 3) lit += shot.rgb[i] > 250;
  EXPECT_GT(lit, 0);
  EXPECT_LT(lit, shot.width * shot.height / 2);

  // Closing the window writes the beauty again and ends the program.
  fs::remove(beautyName);
  ASSERT_TRUE(closeWindow("quazel"));
  int status = 0;
  ASSERT_TRUE(waitFor([&] { return waitpid(child, &status, WNOHANG) == child; }));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(fs::exists(beautyName));
  // The window system ends the program on close: the run never gets past the render.
  EXPECT_EQ(readFile(output).find("click to close"), std::string::npos);
}
}  // namespace

TEST(PreviewWindow, ShowsTheBeautyAtTheCameraSizeAndSavesItOnClose) {
  if (std::getenv(insideVariable)) {
    previewInsideDisplay();
    return;
  }
  if (!onPath("xvfb-run") || !onPath("xwd")) GTEST_SKIP() << "xvfb-run or xwd is not installed";
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  const std::string command = std::string(insideVariable) + "=1 xvfb-run -a -s '-screen 0 320x240x24' '" + self +
                              "' --gtest_filter=PreviewWindow.* > preview-inside.txt 2>&1";
  const int status = std::system(command.c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readFile("preview-inside.txt");
}
