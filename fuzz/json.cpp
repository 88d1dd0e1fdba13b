// JSON text: camera descriptions, settings, messages.

#include <algorithm>

#include <sys/stat.h>

#include "fuzz.h"
#include "vexo/variant/Variant.h"
#include "vexo_utils/auth.h"

namespace {

using vexo::variant::Variant;

constexpr char kPath[] = "/etc/persistent/vexo_avclient.conf";

std::size_t depthOf(const Variant& value) {
  std::size_t depth = 0;
  if (const Variant::List* list = value.list()) {
    for (const Variant& entry : *list) depth = std::max(depth, depthOf(entry));
  } else if (const Variant::Map* map = value.map()) {
    for (const auto& [key, entry] : *map) depth = std::max(depth, depthOf(entry));
  } else {
    return 0;
  }
  return depth + 1;
}

}  // namespace

FUZZ_TARGET(json) {
  const std::string text = input.rest();
  Variant value = "before";
  const bool good = Variant::fromJson(text, value);
  MUST(vexo::fuzz::errors() == 0);

  mkdir("/etc/persistent", 0755);
  vexo::fuzz::write(kPath, text);
  Variant fromFile = "before";
  MUST(Variant::FromJSONFile(kPath, fromFile) == good && fromFile == value);
  bool isAdopted = false;
  MUST(vexo::utils::adopted(isAdopted) == good);
  MUST(!isAdopted || text.find("true") != std::string::npos);
  MUST(vexo::fuzz::errors() == (good ? 0 : 2));

  if (!good) {
    MUST(value == Variant("before"));
    return;
  }
  MUST(depthOf(value) <= Variant::kMaxDepth);
  Variant again;
  MUST(Variant::fromJson(value.toJson(), again) && again == value);
  MUST(again.toJson() == value.toJson());
}
