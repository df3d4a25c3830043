#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include "platform/AtomicFile.h"
#include "platform/posix/PosixServices.h"

namespace quorvel::platform {
namespace {

template <typename T>
Bytes bytesOf(T value) {
  Bytes out(sizeof(T));
  std::memcpy(out.data(), &value, sizeof(T));
  return out;
}

Bytes textOf(const std::string& text) {
  Bytes out(text.begin(), text.end());
  out.push_back(0);
  return out;
}

std::string machine() {
  utsname u{};
  return uname(&u) == 0 ? std::string(u.machine) : std::string();
}

std::optional<std::string> cpuInfoField(const std::string& field) {
  std::istringstream in(readTextFile("/proc/cpuinfo").value_or(std::string()));
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field, 0) != 0)
      continue;
    const auto colon = line.find(':');
    if (colon == std::string::npos)
      continue;
    const auto start = line.find_first_not_of(" \t", colon + 1);
    if (start == std::string::npos)
      return std::nullopt;
    return line.substr(start);
  }
  return std::nullopt;
}

bool isX86(const std::string& m) {
  return m == "x86_64" || m == "i386" || m == "i486" || m == "i586" || m == "i686";
}

// Processor frequency in Hz: the highest frequency cpufreq reports, else /proc/cpuinfo.
std::optional<std::uint64_t> cpuFrequencyHz() {
  std::istringstream in(readTextFile("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq")
                            .value_or(std::string()));
  std::uint64_t khz = 0;
  if (in >> khz && khz > 0)
    return khz * 1000;
  if (auto mhz = cpuInfoField("cpu MHz")) {
    try {
      return static_cast<std::uint64_t>(std::stod(*mhz) * 1e6);
    } catch (...) {
    }
  }
  return std::nullopt;
}

}  // namespace

LinuxSysctl::Facts LinuxSysctl::read() {
  Facts facts;
  facts.machine = machine();
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageSize = sysconf(_SC_PAGE_SIZE);
  if (pages > 0 && pageSize > 0)
    facts.memoryBytes = static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize);
  if (const long n = sysconf(_SC_NPROCESSORS_ONLN); n > 0)
    facts.processors = static_cast<std::int32_t>(n);
  facts.cpuHz = cpuFrequencyHz();
  // x86 names it "model name"; some ARM kernels "Model" or "Hardware".
  for (const char* field : {"model name", "Model", "Hardware"}) {
    if (auto brand = cpuInfoField(field)) {
      facts.brand = std::move(brand);
      break;
    }
  }
  return facts;
}

LinuxSysctl::LinuxSysctl() : facts_(read()) {}

std::optional<Bytes> LinuxSysctl::byName(std::string_view name) const {
  const Facts& f = facts_;
  const std::string& m = f.machine;
  if (name == "hw.machine") {
    if (m.empty())
      return std::nullopt;
    return textOf(m);
  }
  if (name == "hw.memsize")
    return f.memoryBytes ? std::optional(bytesOf<std::uint64_t>(*f.memoryBytes)) : std::nullopt;
  if (name == "hw.ncpu")
    return f.processors ? std::optional(bytesOf<std::int32_t>(*f.processors)) : std::nullopt;
  if (name == "hw.cpufrequency")
    return f.cpuHz ? std::optional(bytesOf<std::uint64_t>(*f.cpuHz)) : std::nullopt;
  if (name == "machdep.cpu.brand_string")
    return f.brand ? std::optional(textOf(*f.brand)) : std::nullopt;
  if (name == "hw.cputype") {
    // The kernel's processor type numbers: x86 7, ARM 12, 64-bit ARM 0x0100000C, PowerPC 18.
    if (isX86(m))
      return bytesOf<std::int32_t>(7);
    if (m == "aarch64" || m == "arm64")
      return bytesOf<std::int32_t>(0x0100000C);
    if (m.rfind("arm", 0) == 0)
      return bytesOf<std::int32_t>(12);
    if (m.rfind("ppc", 0) == 0)
      return bytesOf<std::int32_t>(18);
    return std::nullopt;
  }
  if (name == "hw.cpu64bit_capable") {
    if (m.empty())
      return std::nullopt;
    const bool is64 = m.find("64") != std::string::npos;
    return bytesOf<std::int32_t>(is64 ? 1 : 0);
  }
  if (name == "hw.optional.x86_64") {
    if (!isX86(m))
      return std::nullopt;
    return bytesOf<std::int32_t>(m == "x86_64" ? 1 : 0);
  }
  // hw.cpusubtype, hw.cpufamily, hw.model and the rest have no Linux equivalent.
  return std::nullopt;
}

std::optional<Bytes> LinuxSysctl::byMib(const std::vector<int>& mib) const {
  // {CTL_HW, HW_CPU_FREQ}: the processor frequency in Hz, 64 bits wide.
  if (mib == std::vector<int>{6, 15}) {
    if (const auto hz = facts_.cpuHz)
      return bytesOf<std::uint64_t>(*hz);
  }
  return std::nullopt;
}

}  // namespace quorvel::platform
