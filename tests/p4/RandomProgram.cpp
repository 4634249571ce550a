#include "tests/p4/RandomProgram.h"

#include "tests/p4/SmallProgram.h"

namespace P4Test {
namespace {

using P4::Number;

constexpr uint32_t widths[] = {1,  3,  7,  8,  9,  12, 16,  20,  31, 32,
                               33, 48, 57, 63, 64, 65, 100, 128, 200};

std::vector<TestField> padded(std::vector<TestField> fields) {
  uint32_t bits = 0;
  for (const TestField& field : fields) bits += field.bits;
  if (bits % 8) fields.push_back({"padding", 8 - bits % 8});
  return fields;
}

// The low bits of the two's complement.
Number cut(const Number& value, uint32_t bits) {
  Number rest;
  mpz_fdiv_r_2exp(rest.get_mpz_t(), value.get_mpz_t(), bits);
  return rest;
}

Number withSign(const Number& pattern, uint32_t bits) {
  return pattern >= P4::powerOfTwo(bits - 1) ? Number(pattern - P4::powerOfTwo(bits)) : pattern;
}

std::string bitsText(const Number& pattern, uint32_t bits) {
  std::string text = pattern.get_str(2);
  return std::string(bits - text.size(), '0') + text;
}

}  // namespace

RandomProgram::RandomProgram(uint64_t seed) : random_(seed) {
  const auto field = [this](const char* prefix, size_t number) {
    const uint32_t bits = widths[below(std::size(widths))];
    return TestField{prefix + std::to_string(number), bits, bits > 1 && below(4) == 0};
  };
  for (size_t i = 0; i < 6; ++i) in_.push_back(field("f", i));
  for (size_t i = 0; i < 5; ++i) out_.push_back(field("g", i));
  in_ = padded(std::move(in_));
  for (size_t i = 0; i < 5; ++i) expressions_.push_back(data(5));
  out_ = padded(std::move(out_));
}

RandomProgram::Tree RandomProgram::made(const std::string& op, Tree left, Tree right,
                                        Tree condition) {
  auto node = std::make_unique<Node>();
  node->op = op;
  node->kids.push_back(std::move(left));
  node->kids.push_back(std::move(right));
  node->kids.push_back(std::move(condition));
  return node;
}

RandomProgram::Tree RandomProgram::constant(uint32_t bits) {
  auto node = std::make_unique<Node>();
  node->op = "constant";
  for (uint32_t i = 0; i < bits; ++i) node->number = node->number * 2 + (random_() & 1);
  return node;
}

RandomProgram::Tree RandomProgram::data(int depth) {
  if (depth == 0 || below(8) == 0) {
    if (below(3) == 0) return constant(widths[below(std::size(widths))]);
    auto node = std::make_unique<Node>();
    node->op = "field";
    node->field = below(static_cast<uint32_t>(in_.size()));
    return node;
  }
  static const char* const plain[] = {"+", "-", "*", "&", "|", "^"};
  switch (below(12)) {
    case 0:
      return made("<<", data(depth - 1), constant(5));
    case 1:
      return made(">>", data(depth - 1), constant(5));
    case 2:
      return made("~", nullptr, data(depth - 1));
    case 3:
      return made("?", data(depth - 1), data(depth - 1), truth(depth - 1));
    case 4:
      return made("b2d", nullptr, truth(depth - 1));
    case 5: {
      static const char* const casts[] = {"two_comp_mod", "usat_cast", "sat_cast"};
      auto width = std::make_unique<Node>();
      width->op = "constant";
      width->number = 1 + below(130);
      return made(casts[below(3)], data(depth - 1), std::move(width));
    }
    case 6:
      return made("&", data(depth - 1), constant(widths[below(std::size(widths))]));
    case 7:
      return made(below(2) ? "<<" : ">>", data(depth - 1), made("&", data(depth - 1), constant(6)));
    default:
      return made(plain[below(6)], data(depth - 1), data(depth - 1));
  }
}

RandomProgram::Tree RandomProgram::truth(int depth) {
  static const char* const comparisons[] = {"==", "!=", "<", "<=", ">", ">="};
  if (depth > 0 && below(3) == 0) {
    switch (below(3)) {
      case 0:
        return made("and", truth(depth - 1), truth(depth - 1));
      case 1:
        return made("or", truth(depth - 1), truth(depth - 1));
      default:
        return made("not", nullptr, truth(depth - 1));
    }
  }
  const int next = depth > 0 ? depth - 1 : 0;
  if (below(6) == 0) return made("d2b", nullptr, data(next));
  return made(comparisons[below(6)], data(next), data(next));
}

std::string RandomProgram::jsonOf(const Node& node, const std::vector<TestField>& fields) {
  if (node.op == "constant")
    return R"({"type":"hexstr","value":"0x)" + node.number.get_str(16) + "\"}";
  if (node.op == "field")
    return R"({"type":"field","value":["h",")" + fields[node.field].name + "\"]}";
  const auto kid = [&](size_t i) {
    return node.kids[i] ? jsonOf(*node.kids[i], fields) : std::string("null");
  };
  std::string text = R"({"type":"expression","value":{"op":")" + node.op + R"(","left":)" + kid(0) +
                     ",\"right\":" + kid(1);
  if (node.kids[2]) text += ",\"cond\":" + kid(2);
  return text + "}}";
}

std::string RandomProgram::textOf(const Node& node) {
  if (node.op == "constant") return "0x" + node.number.get_str(16);
  if (node.op == "field") return "f" + std::to_string(node.field);
  std::string text = "(" + node.op;
  for (const Tree& kid : node.kids) text += kid ? " " + textOf(*kid) : "";
  return text + ")";
}

Number RandomProgram::evaluate(const Node& node, const std::vector<Number>& fields) {
  if (node.op == "constant") return node.number;
  if (node.op == "field") return fields[node.field];
  const auto kid = [&](size_t i) { return evaluate(*node.kids[i], fields); };
  if (node.op == "?") return kid(2) != 0 ? kid(0) : kid(1);
  if (node.op == "~") return -kid(1) - 1;
  if (node.op == "b2d") return kid(1);
  if (node.op == "d2b") return kid(1) != 0;
  if (node.op == "not") return kid(1) == 0;
  const Number left = kid(0);
  const Number right = kid(1);
  if (node.op == "+") return left + right;
  if (node.op == "-") return left - right;
  if (node.op == "*") return left * right;
  if (node.op == "&") return left & right;
  if (node.op == "|") return left | right;
  if (node.op == "^") return left ^ right;
  if (node.op == "<<") return left << right.get_ui();
  if (node.op == ">>") return left >> right.get_ui();
  if (node.op == "==") return left == right;
  if (node.op == "!=") return left != right;
  if (node.op == "<") return left < right;
  if (node.op == "<=") return left <= right;
  if (node.op == ">") return left > right;
  if (node.op == ">=") return left >= right;
  if (node.op == "and") return left != 0 && right != 0;
  if (node.op == "or") return left != 0 || right != 0;
  const auto bits = static_cast<uint32_t>(right.get_ui());
  if (node.op == "two_comp_mod") return withSign(cut(left, bits), bits);
  if (node.op == "usat_cast") return std::max(Number(0), std::min(left, P4::lowMask(bits)));
  return std::max(Number(-P4::powerOfTwo(bits - 1)), std::min(left, P4::lowMask(bits - 1)));
}

std::string RandomProgram::json() const {
  SmallProgram program;
  program.header("h", in_);
  program.header("out", out_);
  program.state("start", R"([{"op":"extract","parameters":[{"type":"regular","value":"h"}]}])");
  std::string calls = R"({"op":"add_header","parameters":[{"type":"header","value":"out"}]})";
  for (size_t i = 0; i < expressions_.size(); ++i)
    calls += R"(,{"op":"assign","parameters":[{"type":"field","value":["out",")" + out_[i].name +
             R"("]},{"type":"expression","value":)" + jsonOf(*expressions_[i], in_) + "}]}";
  program.ingressAction(calls);
  program.deparse({"out", "h"});
  return program.json();
}

std::string RandomProgram::randomPacket() {
  uint32_t bits = 0;
  for (const TestField& field : in_) bits += field.bits;
  std::string packet;
  // Zeros and ones more often than chance has them: they lie at the ends of ranges.
  const uint32_t style = below(4);
  for (uint32_t i = 0; i < bits / 8; ++i)
    packet += static_cast<char>(style == 0 ? 0 : style == 1 ? 0xff : random_());
  return packet;
}

std::string RandomProgram::expected(const std::string& packet) const {
  std::vector<Number> fields;
  const std::string bits = P4::numberOfBytes(packet).get_str(2);
  const std::string all = std::string(packet.size() * 8 - bits.size(), '0') + bits;
  size_t at = 0;
  for (const TestField& field : in_) {
    const Number pattern(all.substr(at, field.bits), 2);
    fields.push_back(field.isSigned ? withSign(pattern, field.bits) : pattern);
    at += field.bits;
  }
  std::string out;
  for (size_t i = 0; i < out_.size(); ++i)
    out += i < expressions_.size()
               ? bitsText(cut(evaluate(*expressions_[i], fields), out_[i].bits), out_[i].bits)
               : std::string(out_[i].bits, '0');
  std::string bytes;
  for (size_t i = 0; i < out.size(); i += 8)
    bytes += static_cast<char>(std::stoi(out.substr(i, 8), nullptr, 2));
  return bytes + packet;
}

std::string RandomProgram::describe() const {
  std::string text;
  for (size_t i = 0; i < in_.size(); ++i)
    text +=
        in_[i].name + ":" + (in_[i].isSigned ? "int" : "bit") + std::to_string(in_[i].bits) + " ";
  for (size_t i = 0; i < expressions_.size(); ++i)
    text +=
        "\n" + out_[i].name + ":" + std::to_string(out_[i].bits) + " = " + textOf(*expressions_[i]);
  return text;
}

}  // namespace P4Test
