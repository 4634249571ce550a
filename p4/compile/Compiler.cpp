// From a program to its image.
#include "p4/compile/CalculationCompiler.h"
#include "p4/compile/CodeBuffer.h"
#include "p4/compile/ControlCompiler.h"
#include "p4/compile/ExpressionCompiler.h"
#include "p4/compile/Layout.h"
#include "p4/compile/ParserCompiler.h"
#include "p4/compile/PrimitiveCompiler.h"
#include "p4/match/Entry.h"

namespace P4 {
namespace {

uint32_t argumentWords(const Action& action) {
  uint32_t words = 0;
  for (const Parameter& parameter : action.parameters) words += (parameter.bits + 63) / 64;
  return words;
}

uint32_t mostArgumentWords(const Program& program) {
  uint32_t most = ActionData::leastWords;
  for (const Action& action : program.actions) most = std::max(most, argumentWords(action));
  return most;
}

class Compiler {
 public:
  Compiler(const Program& program, uint32_t dropPort)
      : program_(program),
        dropPort_((image_.dropPort = dropPort)),
        layout_(program, image_),
        code_((image_.argumentSlot = layout_.firstFreeSlot()) + mostArgumentWords(program)),
        expressions_(program, layout_, image_, code_),
        primitives_(program, layout_, image_, code_, expressions_),
        parser_(program, image_, code_, expressions_, primitives_),
        control_(program, layout_, image_, code_, expressions_) {}

  Image compile() {
    compileCalculations();
    compileLists();
    for (const Table& table : program_.tables) image_.shapes.push_back(keyShapeOf(table));
    image_.tables.resize(program_.tables.size());
    parser_.compile();
    compileVerification();
    for (const Action& action : program_.actions) compileAction(action);
    image_.ingress = control_.compile(program_.ingress);
    image_.egress = control_.compile(program_.egress);
    compileUpdate();
    parser_.finish();
    control_.finish();
    image_.code = code_.finish();
    compileDeparser();
    image_.stateWords =
        std::max(code_.mostSlots(), image_.argumentSlot + mostArgumentWords(program_)) + 2;
    return std::move(image_);
  }

 private:
  uint32_t addCalculation(const Calculation& calculation) {
    image_.calculations.push_back(compileCalculation(calculation, program_, layout_, image_));
    return static_cast<uint32_t>(image_.calculations.size() - 1);
  }

  void compileCalculations() {
    for (const Calculation& calculation : program_.calculations) addCalculation(calculation);
    for (const ActionProfile& profile : program_.profiles)
      image_.profileCalculations.push_back(profile.withSelector ? addCalculation(profile.selector)
                                                                : absent);
  }

  void compileDeparser() {
    image_.deparser = program_.deparserOrder;
    for (const uint32_t header : image_.deparser) {
      image_.deparsedBytes += image_.headers[header].bytes;
      image_.deparsedVarbits += image_.headers[header].varbit != noSlot;
    }
    image_.deparsesBytes = image_.deparsedVarbits == 0 &&
                           std::ranges::none_of(image_.deparser, [this](uint32_t header) {
                             return image_.headers[header].metadata;
                           });
  }

  ListCode compileList(const FieldList& list, bool withValidity) const {
    ListCode code{.id = list.id};
    for (const FieldRef& ref : list.fields) {
      if (ref.field == validBit && !withValidity) continue;
      const HeaderPlace& header = image_.headers[ref.header];
      code.fields.push_back(layout_.place(ref.header, ref.field));
      code.valid.push_back(header.metadata || ref.field == validBit ? noSlot : header.valid);
    }
    return code;
  }

  void compileLists() {
    for (const FieldList& list : program_.fieldLists)
      image_.fieldLists.push_back(compileList(list, false));
    for (const FieldList& list : program_.learnLists)
      image_.learnLists.push_back(compileList(list, true));
    const auto error = [this](const char* name) { return program_.errors.find(name)->second; };
    image_.errors = {error("NoError"),          error("PacketTooShort"),
                     error("StackOutOfBounds"), error("HeaderTooShort"),
                     error("ParserTimeout"),    error("ParserInvalidArgument")};
  }

  void compileAction(const Action& action) {
    image_.actions.push_back(code_.here());
    image_.actionWords.push_back(argumentWords(action));
    expressions_.actionIs(&action);
    primitives_.compile(action.calls);
    expressions_.actionIs(nullptr);
    code_.emit(Code::leave);
  }

  // Skips the rest when the checksum does not count.
  void compileCondition(const Checksum& checksum, CodeBuffer::Label over) {
    if (checksum.condition) expressions_.branch(*checksum.condition, false, over);
  }

  Value calculated(const Checksum& checksum) {
    const Value result{.slot = code_.temporary(), .range = Range::unsignedOf(64)};
    code_.emit(Code::calculate, result.slot, addCalculation(checksum.calculation));
    return result;
  }

  void compileVerification() {
    image_.verify = code_.here();
    for (const Checksum& checksum : program_.checksums) {
      if (!checksum.verify) continue;
      const uint32_t mark = code_.mark();
      const CodeBuffer::Label over = code_.newLabel();
      const HeaderPlace& header = image_.headers[checksum.target.header];
      if (!header.metadata) code_.emitJump(Code::jumpIfZero, over, header.valid);
      compileCondition(checksum, over);
      const Value wanted = calculated(checksum);
      const Value found =
          expressions_.load(layout_.place(checksum.target.header, checksum.target.field));
      code_.emitJump(Code::jumpIfEqual, over, wanted.slot, expressions_.slotOfWord(found));
      code_.emit(Code::checksumError);
      code_.bind(over);
      code_.releaseTo(mark);
    }
    code_.emit(Code::end);
  }

  void compileUpdate() {
    image_.update = code_.here();
    for (const Checksum& checksum : program_.checksums) {
      if (!checksum.update) continue;
      const uint32_t mark = code_.mark();
      const CodeBuffer::Label over = code_.newLabel();
      compileCondition(checksum, over);
      expressions_.store(layout_.place(checksum.target.header, checksum.target.field),
                         calculated(checksum));
      code_.bind(over);
      code_.releaseTo(mark);
    }
    primitives_.compile(program_.deparserCalls);
    code_.emit(Code::end);
  }

  const Program& program_;
  Image image_;
  uint32_t dropPort_;
  Layout layout_;
  CodeBuffer code_;
  ExpressionCompiler expressions_;
  PrimitiveCompiler primitives_;
  ParserCompiler parser_;
  ControlCompiler control_;
};

}  // namespace

Image compileProgram(const Program& program, uint32_t dropPort) {
  return Compiler(program, dropPort).compile();
}

}  // namespace P4
