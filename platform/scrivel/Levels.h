// Which levels of which handles are traced: the text of $KORVEL_TRACE and of `korvel trace --set`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Scrivel {

// Whether `name` fits `pattern`, in which '*' stands for any run of characters.
bool nameMatches(std::string_view pattern, std::string_view name);

// Items separated by commas, HANDLE/LEVELS: LEVELS is "3", "0-5", "all" or "off"; HANDLE is a name
// in which '*' stands for any run of characters. The first item that names a handle decides; a
// handle that none names keeps level 0. Example: "KorvelPiTables/0-5,*/0-1".
class Levels {
 public:
  // Empty when the text is malformed; `trouble` then names the item and the expected form.
  static std::optional<Levels> parse(std::string_view text, std::string* trouble = nullptr);

  uint32_t mask(std::string_view handle) const;                  // bit n: level n
  std::optional<uint32_t> named(std::string_view handle) const;  // empty: no item names it

 private:
  struct Item {
    std::string pattern;
    uint32_t mask;
  };
  std::vector<Item> items_;
};

}  // namespace Scrivel
