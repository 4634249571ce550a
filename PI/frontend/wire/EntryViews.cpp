// The parts of a P4Runtime table entry as views.
#include "PI/frontend/wire/EntryViews.h"

namespace pi::fe::proto {

MatchView viewOf(const p4::v1::FieldMatch& match) {
  using Form = MatchView::Form;
  using p4::v1::FieldMatch;
  MatchView view{.fieldId = match.field_id()};
  switch (match.field_match_type_case()) {
    case FieldMatch::kExact:
      view.form = Form::exact;
      view.value = match.exact().value();
      break;
    case FieldMatch::kTernary:
      view.form = Form::ternary;
      view.value = match.ternary().value();
      view.second = match.ternary().mask();
      break;
    case FieldMatch::kLpm:
      view.form = Form::lpm;
      view.value = match.lpm().value();
      view.prefixLength = match.lpm().prefix_len();
      break;
    case FieldMatch::kRange:
      view.form = Form::range;
      view.value = match.range().low();
      view.second = match.range().high();
      break;
    case FieldMatch::kOptional:
      view.form = Form::optional;
      view.value = match.optional().value();
      break;
    case FieldMatch::kOther:
      view.form = Form::other;
      break;
    case FieldMatch::FIELD_MATCH_TYPE_NOT_SET:
      break;
  }
  return view;
}

}  // namespace pi::fe::proto
