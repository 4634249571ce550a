// Turns calls of primitives into code.
#pragma once

#include <deque>

#include "p4/compile/ExpressionCompiler.h"

namespace P4 {

class PrimitiveCompiler {
 public:
  PrimitiveCompiler(const Program& program, const Layout& layout, Image& image, CodeBuffer& code,
                    ExpressionCompiler& expressions)
      : program_(program), layout_(layout), image_(image), code_(code), expressions_(expressions) {}

  // A list of calls, among which jumps are possible.
  void compile(const std::vector<PrimitiveCall>& calls);
  void compile(const PrimitiveCall& call);

 private:
  void compileJump(const PrimitiveCall& call, size_t position,
                   const std::vector<CodeBuffer::Label>& labels);
  void arithmetic(const PrimitiveCall& call);
  void headerCall(const PrimitiveCall& call);
  void copyHeaders(const Expression& to, const Expression& from);
  void copyHeader(uint32_t to, uint32_t from);
  void copyUnion(uint32_t to, uint32_t from);
  void copyStack(const PrimitiveCall& call);
  void pushOrPop(const PrimitiveCall& call);
  void copyVarbit(const PrimitiveCall& call);
  void markToDrop(const Expression& header);
  void drop();
  void setField(const FieldPlace& place, uint64_t value);
  void hash(const PrimitiveCall& call);
  void random(const PrimitiveCall& call);
  void executeMeter(const PrimitiveCall& call);
  void registerRead(const PrimitiveCall& call);
  void registerWrite(const PrimitiveCall& call);
  void log(const PrimitiveCall& call);

  const Program& program_;
  const Layout& layout_;
  Image& image_;
  CodeBuffer& code_;
  ExpressionCompiler& expressions_;
  std::deque<Expression> made_;  // ranges are remembered by address
};

}  // namespace P4
