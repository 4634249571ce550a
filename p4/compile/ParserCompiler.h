// Turns parser states into code.
#pragma once

#include "p4/compile/ExpressionCompiler.h"
#include "p4/compile/PrimitiveCompiler.h"

namespace P4 {

class ParserCompiler {
 public:
  ParserCompiler(const Program& program, Image& image, CodeBuffer& code,
                 ExpressionCompiler& expressions, PrimitiveCompiler& primitives)
      : program_(program),
        image_(image),
        code_(code),
        expressions_(expressions),
        primitives_(primitives) {}

  void compile();
  void finish();  // once all labels are bound: places in jump tables

 private:
  void compileState(uint32_t position);
  void compileOp(const ParserOp& op);
  void extractVarbit(const ParserOp& op);
  void verify(const ParserOp& op);
  void transition(const ParserState& state);
  void selectNarrow(const ParserState& state);
  void selectWide(const ParserState& state);
  CodeBuffer::Label labelOf(uint32_t state);

  const Program& program_;
  Image& image_;
  CodeBuffer& code_;
  ExpressionCompiler& expressions_;
  PrimitiveCompiler& primitives_;
  std::vector<CodeBuffer::Label> states_;
  CodeBuffer::Label end_ = 0;
};

}  // namespace P4
