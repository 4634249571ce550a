// Values of a P4 type, packed.
#include "PI/frontend/model/PackedData.h"

#include <string>

#include "PI/frontend/base/ByteString.h"

namespace pi::fe::proto {

namespace config = p4::config::v1;
using config::P4DataTypeSpec;
using p4::v1::P4Data;

namespace {

constexpr int kDeepest = 16;           // types within types
constexpr uint32_t kMostBits = 65536;  // of one value

uint32_t bitsOf(const config::P4BitstringLikeTypeSpec& type) {
  const int32_t bits = type.has_bit()    ? type.bit().bitwidth()
                       : type.has_int_() ? type.int_().bitwidth()
                                         : 0;
  return bits > 0 ? static_cast<uint32_t>(bits) : 0;
}

// Walks through a type and the types in it, in order. Everything but leaf() is the same for
// counting bits and for reading them.
class Walk {
 public:
  explicit Walk(const config::P4TypeInfo& types) : types_(types) {}
  virtual ~Walk() = default;

  bool run(const P4DataTypeSpec& type, P4Data* data, int depth = 0) {
    if (depth > kDeepest) return false;
    switch (type.type_spec_case()) {
      case P4DataTypeSpec::kBitstring:
        return number(bitsOf(type.bitstring()), type.bitstring().has_int_(),
                      data->mutable_bitstring());
      case P4DataTypeSpec::kBool:
        return flag(data);
      case P4DataTypeSpec::kTuple:
        return members(
            type.tuple().members(), data->mutable_tuple(), depth,
            [](const P4DataTypeSpec& member) -> const auto& { return member; });
      case P4DataTypeSpec::kStruct:
        return structure(type.struct_().name(), data, depth);
      case P4DataTypeSpec::kHeader:
        return header(type.header().name(), data->mutable_header());
      case P4DataTypeSpec::kSerializableEnum:
        return enumeration(type.serializable_enum().name(), data);
      case P4DataTypeSpec::kNewType:
        return newType(type.new_type().name(), data, depth);
      default:
        return false;
    }
  }

 protected:
  virtual bool leaf(uint32_t bits, bool isSigned, std::string* value) = 0;

 private:
  bool number(uint32_t bits, bool isSigned, std::string* value) {
    return bits != 0 && leaf(bits, isSigned, value);
  }

  bool flag(P4Data* data) {
    std::string value;
    if (!leaf(1, false, &value)) return false;
    data->set_bool_(!value.empty() && value.back() != '\0');
    return true;
  }

  template <typename Members, typename TypeOf>
  bool members(const Members& members, p4::v1::P4StructLike* data, int depth, TypeOf typeOf) {
    for (const auto& member : members) {
      if (!run(typeOf(member), data->add_members(), depth + 1)) return false;
    }
    return true;
  }

  bool structure(const std::string& name, P4Data* data, int depth) {
    const auto found = types_.structs().find(name);
    return found != types_.structs().end() &&
           members(
               found->second.members(), data->mutable_struct_(), depth,
               [](const auto& member) -> const auto& { return member.type_spec(); });
  }

  bool header(const std::string& name, p4::v1::P4Header* data) {
    const auto found = types_.headers().find(name);
    if (found == types_.headers().end()) return false;
    data->set_is_valid(true);
    for (const auto& member : found->second.members()) {
      const auto& type = member.type_spec();
      if (!number(bitsOf(type), type.has_int_(), data->add_bitstrings())) return false;
    }
    return true;
  }

  bool enumeration(const std::string& name, P4Data* data) {
    const auto found = types_.serializable_enums().find(name);
    if (found == types_.serializable_enums().end()) return false;
    const int32_t bits = found->second.underlying_type().bitwidth();
    return bits > 0 && number(static_cast<uint32_t>(bits), false, data->mutable_enum_value());
  }

  bool newType(const std::string& name, P4Data* data, int depth) {
    const auto found = types_.new_types().find(name);
    if (found == types_.new_types().end()) return false;
    if (found->second.has_original_type()) {
      return run(found->second.original_type(), data, depth + 1);
    }
    const int32_t bits = found->second.translated_type().sdn_bitwidth();
    return bits > 0 && number(static_cast<uint32_t>(bits), false, data->mutable_bitstring());
  }

  const config::P4TypeInfo& types_;
};

class Counting final : public Walk {
 public:
  using Walk::Walk;
  uint32_t bits = 0;

 private:
  bool leaf(uint32_t more, bool, std::string*) override {
    bits += more;
    return more <= kMostBits && bits <= kMostBits;
  }
};

class Reading final : public Walk {
 public:
  Reading(const config::P4TypeInfo& types, std::string_view bytes) : Walk(types), bytes_(bytes) {}

 private:
  bool leaf(uint32_t bits, bool isSigned, std::string* value) override {
    const auto* data = reinterpret_cast<const uint8_t*>(bytes_.data());
    *value = bitsAt(data, bits, at_);
    at_ += bits;
    isSigned ? shortenSigned(bits, value) : shorten(value);
    return true;
  }

  // Two's complement: the bits above the highest become the sign's, and go as far as they may.
  static void shortenSigned(uint32_t bits, std::string* value) {
    const uint32_t over = static_cast<uint32_t>(value->size()) * 8 - bits;
    const bool isNegative = ((*value)[0] >> (7 - over) & 1) != 0;
    if (isNegative) (*value)[0] = static_cast<char>((*value)[0] | (0xff << (8 - over)));
    const char fill = isNegative ? '\xff' : '\0';
    size_t drop = 0;
    while (drop + 1 < value->size() && (*value)[drop] == fill &&
           (((*value)[drop + 1] & 0x80) != 0) == isNegative) {
      ++drop;
    }
    value->erase(0, drop);
  }

  std::string_view bytes_;
  size_t at_ = 0;  // in bits
};

}  // namespace

uint32_t packedBits(const config::P4TypeInfo& types, const P4DataTypeSpec& type) {
  Counting walk(types);
  P4Data unused;
  return walk.run(type, &unused) ? walk.bits : 0;
}

std::optional<P4Data> unpacked(const config::P4TypeInfo& types, const P4DataTypeSpec& type,
                               std::string_view bytes) {
  const uint32_t bits = packedBits(types, type);
  if (bits == 0 || bytes.size() != bytesOf(bits)) return std::nullopt;
  P4Data data;
  if (!Reading(types, bytes).run(type, &data)) return std::nullopt;
  return data;
}

}  // namespace pi::fe::proto
