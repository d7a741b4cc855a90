// cfmctl: shows and changes the configuration store from the command line.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>

#include "common/command_line.h"
#include "common/printable.h"
#include "common/unique_fd.h"
#include "common/whole_file.h"
#include "common/write_all.h"
#include "store_json.h"

namespace cfmctl {
namespace {

constexpr char kPlaceHelp[] =
    "ID, OBJECT/INSTANCE/ID, app/ITEM or equip/ITEM; numbers decimal or with 0x";

Place parse_place(const std::string &text) {
  std::vector<std::string> pieces;
  for (size_t begin = 0, end; begin != std::string::npos; begin = end) {
    end = text.find('/', begin);
    pieces.push_back(text.substr(begin, end - begin));
    if (end != std::string::npos) ++end;
  }
  if (pieces.size() == 1) return {CFM_AREA_PARAMETER, 0, 0, parse_number(pieces[0])};
  if (pieces.size() == 2 && pieces[0] == "app") {
    return {CFM_AREA_APP_DATA, 0, 0, parse_number(pieces[1])};
  }
  if (pieces.size() == 2 && pieces[0] == "equip") {
    return {CFM_AREA_EQUIPMENT, 0, 0, parse_number(pieces[1])};
  }
  if (pieces.size() == 3) {
    return {CFM_AREA_PARAMETER, parse_number(pieces[0]), parse_number(pieces[1]),
            parse_number(pieces[2])};
  }
  throw Error("'" + text + "' names no value: " + kPlaceHelp);
}

std::string place_text(const Place &place) {
  switch (place.area) {
    case CFM_AREA_APP_DATA:
      return "app/" + std::to_string(place.id);
    case CFM_AREA_EQUIPMENT:
      return "equip/" + hex_id(place.id);
    default:
      if (place.object == 0) return hex_id(place.id);
      return hex_id(place.object) + "/" + std::to_string(place.instance) + "/" + hex_id(place.id);
  }
}

std::vector<ORP_DB_KEY_ST> read_instances() {
  uint32_t count;
  ORP_DB_KEY_ST *keys;
  check(CFM_StoreObjects(&count, &keys));
  std::vector<ORP_DB_KEY_ST> instances(keys, keys + count);
  std::free(keys);
  return instances;
}

Contents read_store() {
  Contents contents;
  check(CFM_StoreWalk(
      [](const CFM_VALUE *value, void *user) -> uint32_t {
        static_cast<Contents *>(user)->values.push_back(
            {{value->area, value->object, value->instance, value->id},
             value->type,
             value->size,
             {static_cast<const char *>(value->data), value->length}});
        return 0;
      },
      &contents));
  contents.instances = read_instances();
  return contents;
}

void write_store(const Contents &contents, uint32_t flags) {
  std::vector<CFM_VALUE> values;
  for (const Value &value : contents.values) {
    const Place &place = value.place;
    values.push_back({place.area, place.object, place.instance, place.id, value.type, value.size,
                      value.data.data(), static_cast<uint32_t>(value.data.size())});
  }
  check(CFM_StoreDefine(values.data(), static_cast<uint32_t>(values.size()), flags));
  for (const ORP_DB_KEY_ST &key : contents.instances) {
    check(CFM_StoreAddInstance(key.ulObject, key.ulInstance));
  }
}

std::optional<Value> find(const Place &place) {
  for (Value &value : read_store().values) {
    if (value.place == place) return std::move(value);
  }
  return std::nullopt;
}

void get(const std::string &where) {
  const std::optional<Value> value = find(parse_place(where));
  check(value ? CFM_OK : CFM_ERR_NOT_FOUND);
  // A script gets a text as it is.
  const std::string text = shown(*value);
  std::cout << (::isatty(STDOUT_FILENO) != 0 ? servers::printable(text, "\n\t") : text) << '\n';
}

std::string data_of(uint32_t type, const std::string &text) {
  if (type == CFM_TYPE_TEXT) return text;
  if (type == CFM_TYPE_BYTES) return parse_hex(text);
  const uint32_t number = parse_number(text);
  return {reinterpret_cast<const char *>(&number), sizeof number};
}

// An existing value keeps its type and size unless others are given.
void set(const std::string &where, const std::string &text, const std::string &type_name,
         uint32_t size) {
  const Place place = parse_place(where);
  std::optional<Value> value;
  if (type_name.empty()) {
    value = find(place);
    check(value ? CFM_OK : CFM_ERR_NOT_FOUND);
  } else {
    value = Value{place, CFM_TYPE_NUMBER, 4, {}};
    if (type_name != "number") {
      value->type = type_name == "text" ? CFM_TYPE_TEXT : CFM_TYPE_BYTES;
      value->size = 0;
    }
  }
  value->data = data_of(value->type, text);
  if (size != 0) value->size = size;
  if (value->size == 0) value->size = static_cast<uint32_t>(value->data.size()) + 1;
  write_store({{*value}, {}}, 0);
}

void remove(const std::string &where) {
  const Place place = parse_place(where);
  check(CFM_StoreRemove(place.area, place.object, place.instance, place.id));
}

void list() {
  constexpr const char *kTypes[] = {"number", "text", "bytes"};
  for (const Value &value : read_store().values) {
    std::printf("%-34s %-6s %5u  %s\n", place_text(value.place).c_str(), kTypes[value.type],
                value.size, servers::printable(shown(value)).c_str());
  }
}

void objects() {
  for (const ORP_DB_KEY_ST &key : read_instances()) {
    std::printf("%s/%u\n", hex_id(key.ulObject).c_str(), key.ulInstance);
  }
}

void export_to(const std::string &path) {
  const std::string text = servers::printable_json(to_json(read_store()).dump(2)) + "\n";
  // A file is replaced: it holds secrets, so only its owner may read it, and a full disk leaves the
  // old one. A pipe, a device and where a link leads are written to: /dev/stdout stays a link.
  struct stat found {};
  bool written = false;
  if (path.empty() || path == "-") {
    written = servers::write_all(STDOUT_FILENO, text);
  } else if (::lstat(path.c_str(), &found) != 0 || S_ISREG(found.st_mode)) {
    written = servers::replace_file(path, text);
  } else {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    const servers::UniqueFd file(::open(path.c_str(), kFlags, 0600));
    written = file && servers::write_all(file.get(), text);
  }
  if (!written) {
    const std::string reason = std::strerror(errno);
    throw Error((path.empty() ? "standard output" : path) + ": " + reason);
  }
}

void import_from(const std::string &path, bool as_defaults) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw Error(path + ": " + std::strerror(errno));
  try {
    write_store(from_json(nlohmann::json::parse(file)), as_defaults ? CFM_DEFINE_DEFAULT : 0);
  } catch (const std::exception &error) {
    throw Error(path + ": " + error.what());
  }
}

int run(int argc, char **argv) {
  using servers::Command;
  constexpr servers::Presence kOptional = servers::Presence::kOptional;
  constexpr servers::Presence kRequired = servers::Presence::kRequired;
  servers::CommandLine line("cfmctl",
                            "Shows and changes the configuration store in " CFM_STORE_PATH ".");
  std::string place, value, type, file, defaults;
  uint32_t size = 0;

  Command command = line.command("get", "Print one value", [&] { get(place); });
  command.argument("PLACE", &place, kPlaceHelp, kRequired);

  command = line.command("set", "Store one value", [&] { set(place, value, type, size); });
  command.argument("PLACE", &place, kPlaceHelp, kRequired);
  command.argument("VALUE", &value, "a number, a text, or bytes in hexadecimal digits", kRequired);
  command.choice("--type", &type, {"number", "text", "bytes"},
                 "Define the value anew with this type");
  command.number("--size", &size, "The most bytes it may have, a text's NUL included",
                 {1, CFM_MAX_VALUE_SIZE});

  command = line.command("remove", "Remove one value, or with OBJECT/INSTANCE/0 an instance",
                         [&] { remove(place); });
  command.argument("PLACE", &place, kPlaceHelp, kRequired);

  line.command("list", "Print all values: place, type, size, value", list);
  line.command("objects", "Print the instances of all objects", objects);

  command = line.command("export", "Write the store as JSON", [&] { export_to(file); });
  command.argument("FILE", &file, "standard output when it is missing or -", kOptional);

  command = line.command("import", "Store all values of a JSON file, or none; others stay", [&] {
    if (file.empty() == defaults.empty()) {
      throw servers::UsageError("import needs FILE or --defaults FILE, and not both");
    }
    import_from(defaults.empty() ? file : defaults, !defaults.empty());
  });
  command.argument("FILE", &file, "a file as 'export' writes it", kOptional);
  command.option("--defaults", &defaults, "Make the values of this file the defaults too");

  line.command("reset", "Bring back the defaults", [] { check(CFM_StoreRestoreDefaults()); });
  line.command("check", "Verify the whole database", [] {
    check(CFM_StoreCheck());
    std::puts("the store is sound");
  });

  return line.parse(argc, argv).value_or(0);
}

}  // namespace
}  // namespace cfmctl

int main(int argc, char **argv) {
  try {
    return cfmctl::run(argc, argv);
  } catch (const std::exception &error) {
    std::cerr << "cfmctl: " << servers::printable(error.what()) << '\n';
    return 1;
  }
}
