// brctl: the platform's bridge tool, for hosts. It lists bridges ("show") and the addresses that a
// bridge has learnt ("showmacs BRIDGE", with the interface's name as a fifth column). Everything
// comes from the kernel's /sys/class/net, for the network namespace of the mounted sysfs.

#include <linux/if_bridge.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path kInterfaces = "/sys/class/net";

// The first line of a file of the kernel's, or "" when it cannot be read.
std::string read_line(const fs::path &path) {
  std::string line;
  std::ifstream file(path);
  std::getline(file, line);
  return line;
}

// The names in `directory`, sorted; none when it cannot be read.
std::vector<std::string> names_in(const fs::path &directory) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const fs::directory_entry &entry : fs::directory_iterator(directory, ignored)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool is_bridge(const std::string &name) {
  std::error_code ignored;
  return fs::is_directory(kInterfaces / name / "bridge", ignored);
}

void show_bridge(const std::string &name) {
  const fs::path settings = kInterfaces / name / "bridge";
  const bool stp = read_line(settings / "stp_state") != "0";
  std::printf("%s\t\t%s\t%s\t\t", name.c_str(), read_line(settings / "bridge_id").c_str(),
              stp ? "yes" : "no");

  const char *indent = "";
  for (const std::string &port : names_in(kInterfaces / name / "brif")) {
    std::printf("%s%s\n", indent, port.c_str());
    indent = "\t\t\t\t\t\t\t";
  }
  if (*indent == '\0') std::printf("\n");
}

int show() {
  std::printf("bridge name\tbridge id\t\tSTP enabled\tinterfaces\n");
  for (const std::string &name : names_in(kInterfaces)) {
    if (is_bridge(name)) show_bridge(name);
  }
  return 0;
}

// Port numbers and names of a bridge.
std::map<unsigned, std::string> ports_of(const std::string &bridge) {
  std::map<unsigned, std::string> ports;
  const fs::path directory = kInterfaces / bridge / "brif";
  for (const std::string &port : names_in(directory)) {
    const std::string number = read_line(directory / port / "port_no");  // "0x1"
    ports[static_cast<unsigned>(std::strtoul(number.c_str(), nullptr, 0))] = port;
  }
  return ports;
}

// The forwarding table, in the kernel's binary records.
std::vector<__fdb_entry> forwarding_table(const std::string &bridge) {
  std::ifstream file(kInterfaces / bridge / "brforward", std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  std::vector<__fdb_entry> entries(bytes.size() / sizeof(__fdb_entry));
  if (!entries.empty()) {
    std::memcpy(entries.data(), bytes.data(), entries.size() * sizeof(__fdb_entry));
  }
  return entries;
}

int show_macs(const std::string &bridge) {
  if (bridge.find('/') != std::string::npos || !is_bridge(bridge)) {
    std::fprintf(stderr, "brctl: there is no bridge %s\n", bridge.c_str());
    return 1;
  }

  auto entries = forwarding_table(bridge);
  const auto port_number = [](const __fdb_entry &entry) {
    return unsigned{entry.port_hi} << 8 | entry.port_no;
  };
  std::sort(entries.begin(), entries.end(), [](const __fdb_entry &left, const __fdb_entry &right) {
    return std::memcmp(left.mac_addr, right.mac_addr, sizeof left.mac_addr) < 0;
  });

  std::printf("port no\tmac addr\t\tis local?\tageing timer\tinterface\n");
  auto ports = ports_of(bridge);
  for (const __fdb_entry &entry : entries) {
    const std::string &name = ports[port_number(entry)];
    if (name.empty()) continue;  // the port left while the table was read

    // The kernel counts in hundredths of a second.
    const unsigned age = entry.ageing_timer_value;
    const auto &mac = entry.mac_addr;
    std::printf("%3u\t%02x:%02x:%02x:%02x:%02x:%02x\t%s\t\t%4u.%02u\t%s\n", port_number(entry),
                mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], entry.is_local ? "yes" : "no",
                age / 100, age % 100, name.c_str());
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string_view command = argc > 1 ? argv[1] : "";
  if (command == "show" && argc == 2) return show();
  if (command == "showmacs" && argc == 3) return show_macs(argv[2]);

  std::fprintf(stderr,
               "usage: brctl show\n"
               "       brctl showmacs BRIDGE\n");
  return 1;
}
