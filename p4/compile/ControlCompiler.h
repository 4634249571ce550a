// Turns pipelines into code: the nodes in the order in which they are reached.
#pragma once

#include <map>
#include <vector>

#include "p4/compile/ExpressionCompiler.h"

namespace P4 {

class ControlCompiler {
 public:
  ControlCompiler(const Program& program, const Layout& layout, Image& image, CodeBuffer& code,
                  ExpressionCompiler& expressions)
      : program_(program), layout_(layout), image_(image), code_(code), expressions_(expressions) {}

  // Where the pipeline begins.
  uint32_t compile(NodeRef first);
  void finish();  // once all labels are bound: places of the tables' next nodes

 private:
  using Key = std::pair<int, uint32_t>;
  CodeBuffer::Label labelOf(NodeRef node);  // puts it on the list
  void compileNode(NodeRef node);
  void compileConditional(const Conditional& conditional);
  void compileTable(uint32_t position);
  std::vector<KeySource> keyOf(const Table& table, const KeyShape& shape) const;

  const Program& program_;
  const Layout& layout_;
  Image& image_;
  CodeBuffer& code_;
  ExpressionCompiler& expressions_;
  std::map<Key, CodeBuffer::Label> labels_;
  std::vector<NodeRef> waiting_;
  std::vector<bool> compiledTables_;
};

}  // namespace P4
