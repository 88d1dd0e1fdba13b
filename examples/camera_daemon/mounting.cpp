#include "mounting.h"

#include <cmath>
#include <string>
#include <vector>

#include <vexo_utils/coords.h>

#include "console.h"

using console::print;
using console::say;
using vexo::utils::Attitude;
using vexo::utils::RPAttitude;

namespace {

constexpr unsigned kServiceMs = 50;  // service looks at the sensors twice a second, however often

constexpr int kTurns = 3;

constexpr char kChanges[] = "attitude changes";
constexpr char kRefusals[] = "attitudes refused, offered again";

std::vector<std::string> drawingOf(Attitude attitude) {
  switch (attitude) {
    case Attitude::desk:
      return {"     .-.     ", "    ( o )    ", "  ___|_|___  "};
    case Attitude::ceiling:
      return {"  ~~~|~|~~~  ", "    ( o )    ", "     '-'     "};
    case Attitude::wall0:
      return {"  ||  .-^-.  ", "  ||=(  o )  ", "  ||  '---'  "};
    case Attitude::wall3:
      return {"  ||  .---.  ", "  ||=(  o >  ", "  ||  '---'  "};
    case Attitude::wall6:
      return {"  ||  .---.  ", "  ||=(  o )  ", "  ||  '-v-'  "};
    case Attitude::wall9:
      return {"  ||  .---.  ", "  ||=<  o )  ", "  ||  '---'  "};
    case Attitude::unknown:
      break;
  }
  return {"      ?      "};
}

// The circle that the lens draws, in the picture that it is cut from.
void drawLens() {
  constexpr unsigned kWidth = 1280;
  constexpr unsigned kHeight = 720;
  constexpr unsigned kCellWidth = 40;  // a character is twice as high as it is wide
  constexpr unsigned kCellHeight = 80;
  vexo::utils::coords window{};
  vexo::utils::fisheyeRemap(kWidth, kHeight, kWidth, kHeight, false, false, window);
  say("lens", "its circle lies in a square of " + std::to_string(window.w) + " at " +
                  std::to_string(window.x) + "," + std::to_string(window.y));
  const double radius = window.w / 2.0;
  for (unsigned row = 0; row < kHeight / kCellHeight; ++row) {
    std::string line = "  ";
    for (unsigned column = 0; column < kWidth / kCellWidth; ++column) {
      const double x = (column + 0.5) * kCellWidth;
      const double y = (row + 0.5) * kCellHeight;
      const double fromMiddle = std::hypot(x - window.x - radius, y - window.y - radius);
      line += fromMiddle <= radius ? 'o' : '.';
    }
    print(line);
  }
}

}  // namespace

Mounting::Mounting(vexo::utils::Scheduler& loop, Ledger& book) : scheduler(loop), ledger(book) {
  ledger.expect(kChanges, kTurns, 0);
  ledger.expect(kRefusals, 1, 1);
}

bool Mounting::start() {
  attitude.init([this](Attitude now, RPAttitude*) { return changed(now); });
  const auto service = [this](void*) {
    attitude.service();
    return true;
  };
  drawLens();
  return scheduler.AddTimerTask(kServiceMs, service, nullptr) != 0;
}

bool Mounting::done() const {
  return ledger.counted(kChanges) >= kTurns;
}

bool Mounting::changed(Attitude now) {
  if (now == Attitude::unknown) return true;
  if (!refused) {  // not ready for the first one: the next pass offers it again
    refused = true;
    ledger.count(kRefusals);
    say("mounting", "not now: " + toString(now));
    return false;
  }
  if (now == last) {
    say("mounting", "the lens has been turned");
    return true;
  }
  last = now;
  ledger.count(kChanges);
  say("mounting", "the camera hangs as " + toString(now));
  for (const std::string& line : drawingOf(now)) print(line);
  return true;
}
