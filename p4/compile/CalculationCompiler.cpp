#include "p4/compile/CalculationCompiler.h"

#include <algorithm>

namespace P4 {
namespace {

class InputCompiler {
 public:
  InputCompiler(const Program& program, const Layout& layout, const Image& image,
                CalculationCode& code)
      : program_(program), layout_(layout), image_(image), code_(code) {}

  void add(const CalculationInput& input) {
    switch (input.kind) {
      case CalculationInput::Kind::payload:
        code_.payload = true;
        return;
      case CalculationInput::Kind::constant:
        code_.parts.push_back(
            {.kind = CalculationPart::Kind::constant, .bits = input.bits, .bytes = input.bytes});
        return;
      case CalculationInput::Kind::field:
        return addField(input.field);
      case CalculationInput::Kind::header:
        break;
    }
    const auto fields = static_cast<uint32_t>(program_.typeOf(input.field.header).fields.size());
    for (uint32_t field = 0; field < fields; ++field) addField({input.field.header, field});
  }

 private:
  void addField(const FieldRef& ref) {
    const HeaderPlace& header = image_.headers[ref.header];
    CalculationPart part{.valid = header.metadata ? noSlot : header.valid, .header = ref.header};
    if (header.metadata || ref.field == validBit) {
      part.kind = CalculationPart::Kind::value;
      part.place = layout_.place(ref.header, ref.field);
      part.bits = part.place.bits;
      code_.parts.push_back(part);
      return;
    }
    const Field& field = program_.typeOf(ref.header).fields[ref.field];
    part.kind = field.varbit ? CalculationPart::Kind::varbit : CalculationPart::Kind::header;
    part.bit = field.bitOffset;
    part.bits = field.bits;
    if (!continued(part)) code_.parts.push_back(part);
  }

  // Neighbours in a header make one run.
  bool continued(const CalculationPart& part) {
    if (code_.parts.empty() || part.kind != CalculationPart::Kind::header) return false;
    CalculationPart& last = code_.parts.back();
    if (last.kind != part.kind || last.header != part.header || last.bit + last.bits != part.bit)
      return false;
    last.bits += part.bits;
    return true;
  }

  const Program& program_;
  const Layout& layout_;
  const Image& image_;
  CalculationCode& code_;
};

}  // namespace

CalculationCode compileCalculation(const Calculation& calculation, const Program& program,
                                   const Layout& layout, const Image& image) {
  CalculationCode code{.name = calculation.name, .algorithm = calculation.algorithm};
  InputCompiler compiler(program, layout, image, code);
  for (const CalculationInput& input : calculation.inputs) compiler.add(input);
  const auto allOf = [&code](uint32_t unit) {
    return std::ranges::all_of(code.parts, [unit](const CalculationPart& part) {
      return part.kind == CalculationPart::Kind::header && part.bit % 8 == 0 &&
             part.bits % unit == 0;
    });
  };
  code.ofBytes = allOf(8);
  code.isSum = code.algorithm == Algorithm::csum16 && allOf(16);
  return code;
}

}  // namespace P4
