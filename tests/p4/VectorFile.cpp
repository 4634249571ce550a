#include "tests/p4/VectorFile.h"

#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <filesystem>
#include <sstream>

namespace P4Test {

std::string fileText(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string stringOf(const cJSON* object, const char* key) {
  const cJSON* member = cJSON_GetObjectItemCaseSensitive(object, key);
  return cJSON_IsString(member) ? member->valuestring : "";
}

uint32_t numberOf(const cJSON* object, const char* key) {
  const cJSON* member = cJSON_GetObjectItemCaseSensitive(object, key);
  return cJSON_IsNumber(member) ? static_cast<uint32_t>(member->valuedouble) : 0;
}

VectorFile::VectorFile(const std::string& vectors, const std::string& programs,
                       const std::string& name)
    : file_(vectors + "/" + name + ".jsonl") {
  const Json head = next();
  if (!head) throw std::runtime_error("no recorded packets of " + name);
  std::string path = programs + "/" + stringOf(head.get(), "p4info");
  if (!std::filesystem::exists(path)) path = vectors + "/" + stringOf(head.get(), "p4info");
  p4::config::v1::P4Info p4info;
  google::protobuf::TextFormat::ParseFromString(fileText(path), &p4info);
  engine_ = std::make_unique<P4::Engine>(fileText(programs + "/" + stringOf(head.get(), "json")));
  controller_ = std::make_unique<Controller>(*engine_, p4info);
  cpuPort_ = numberOf(head.get(), "cpu_port");
  for (const cJSON* port = cJSON_GetObjectItem(head.get(), "ports")->child; port; port = port->next)
    ports_.insert(static_cast<uint32_t>(port->valuedouble));
}

Json VectorFile::next() {
  std::string line;
  std::getline(file_, line);
  return Json(cJSON_Parse(line.c_str()), cJSON_Delete);
}

void VectorFile::write(const cJSON& updates) {
  for (const cJSON* one = updates.child; one; one = one->next) {
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(one),
                                                            cJSON_free);
    p4::v1::Update update;
    if (!google::protobuf::util::JsonStringToMessage(text.get(), &update).ok())
      throw std::runtime_error(std::string("no update: ") + text.get());
    controller_->write(update);
  }
  controller_->commit();
}

}  // namespace P4Test
