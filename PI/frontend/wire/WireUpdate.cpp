// Reads updates of table entries. The field numbers are those of p4/v1/p4runtime.proto.
#include "PI/frontend/wire/WireUpdate.h"

#include "PI/frontend/wire/FieldReader.h"

namespace pi::fe::proto {

namespace {

using Form = MatchView::Form;

constexpr uint32_t number(uint32_t field) { return FieldReader::numberTag(field); }
constexpr uint32_t bytes(uint32_t field) { return FieldReader::bytesTag(field); }

// The forms of a match have their values in the fields 1 and 2.
bool readForm(std::string_view message, Form form, MatchView* match) {
  const bool hasSecond = form == Form::ternary || form == Form::range;
  match->form = form;
  FieldReader fields(message);
  while (fields.next()) {
    if (fields.tag() == bytes(1)) {
      match->value = fields.bytes();
    } else if (fields.tag() == bytes(2) && hasSecond) {
      match->second = fields.bytes();
    } else if (fields.tag() == number(2) && form == Form::lpm) {
      match->prefixLength = static_cast<int32_t>(fields.number());
    } else {
      return false;
    }
  }
  return fields.wasUsual();
}

Form formOf(uint32_t tag) {
  switch (tag) {
    case bytes(2):
      return Form::exact;
    case bytes(3):
      return Form::ternary;
    case bytes(4):
      return Form::lpm;
    case bytes(6):
      return Form::range;
    case bytes(7):
      return Form::optional;
    default:
      return Form::none;
  }
}

// Of two forms the last would count.
bool readMatch(std::string_view message, MatchView* match) {
  FieldReader fields(message);
  while (fields.next()) {
    if (fields.tag() == number(1)) {
      match->fieldId = static_cast<uint32_t>(fields.number());
      continue;
    }
    const Form form = formOf(fields.tag());
    if (form == Form::none || match->form != Form::none) return false;
    if (!readForm(fields.bytes(), form, match)) return false;
  }
  return fields.wasUsual();
}

bool readParam(std::string_view message, ParamView* param) {
  FieldReader fields(message);
  while (fields.next()) {
    if (fields.tag() == number(2)) {
      param->id = static_cast<uint32_t>(fields.number());
    } else if (fields.tag() == bytes(3)) {
      param->value = fields.bytes();
    } else {
      return false;
    }
  }
  return fields.wasUsual();
}

bool readAction(std::string_view message, WireUpdate* update) {
  FieldReader fields(message, 1u << 4);
  while (fields.next()) {
    if (fields.tag() == number(1)) {
      update->actionId = static_cast<uint32_t>(fields.number());
    } else if (fields.tag() == bytes(4)) {
      if (!readParam(fields.bytes(), &update->params.emplace_back())) return false;
    } else {
      return false;
    }
  }
  return fields.wasUsual();
}

// Of the kinds of table actions, the direct action.
bool readTableAction(std::string_view message, WireUpdate* update) {
  FieldReader fields(message);
  while (fields.next()) {
    if (fields.tag() != bytes(1)) return false;
    update->hasAction = true;
    if (!readAction(fields.bytes(), update)) return false;
  }
  return fields.wasUsual() && update->hasAction;
}

bool readTableEntry(std::string_view message, WireUpdate* update) {
  FieldReader fields(message, 1u << 2);
  while (fields.next()) {
    switch (fields.tag()) {
      case number(1):
        update->tableId = static_cast<uint32_t>(fields.number());
        break;
      case bytes(2):
        if (!readMatch(fields.bytes(), &update->matches.emplace_back())) return false;
        break;
      case bytes(3):
        if (!readTableAction(fields.bytes(), update)) return false;
        break;
      case number(4):
        update->priority = static_cast<int32_t>(fields.number());
        break;
      case number(5):
        update->controllerMetadata = fields.number();
        break;
      case bytes(11):
        update->metadata = fields.bytes();
        break;
      default:
        return false;
    }
  }
  return fields.wasUsual();
}

bool readEntity(std::string_view message, WireUpdate* update) {
  FieldReader fields(message);
  bool hasEntry = false;
  while (fields.next()) {
    if (fields.tag() != bytes(2)) return false;
    hasEntry = true;
    if (!readTableEntry(fields.bytes(), update)) return false;
  }
  return fields.wasUsual() && hasEntry;
}

}  // namespace

void WireUpdate::clear() {
  type = p4::v1::Update::UNSPECIFIED;
  tableId = actionId = 0;
  priority = 0;
  controllerMetadata = 0;
  metadata = {};
  matches.clear();
  params.clear();
  hasAction = false;
}

bool readUpdate(std::string_view message, WireUpdate* update) {
  update->clear();
  FieldReader fields(message);
  bool hasEntity = false;
  while (fields.next()) {
    if (fields.tag() == number(1)) {
      update->type = static_cast<p4::v1::Update::Type>(static_cast<int>(fields.number()));
    } else if (fields.tag() == bytes(2)) {
      hasEntity = true;
      if (!readEntity(fields.bytes(), update)) return false;
    } else {
      return false;
    }
  }
  return fields.wasUsual() && hasEntity;
}

}  // namespace pi::fe::proto
