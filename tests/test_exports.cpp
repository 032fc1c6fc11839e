// The shared library exports exactly the functions and data the public headers
// declare with VARKEL_API: nothing internal leaks, nothing declared is missing.
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <string>

namespace {

// Names declared with the export macro, and file-scope function declarations
// without it ("header: name").
std::pair<std::set<std::string>, std::set<std::string>> declarations()
{
  std::set<std::string> exported, unexported;
  const std::regex function(R"(VARKEL_API[^;(]*?\b(\w+)\s*\()");
  const std::regex data(R"(VARKEL_API\s+extern[^;(]*?\b(\w+)(\s*\[\d*\])?\s*;)");
  const std::regex bare(
      R"(^(?!VARKEL_API|static|inline|typedef|template|struct|enum|namespace|#|//)[A-Za-z_][\w\s\*&:<>,]*?\b(\w+)\s*\()");
  // Every public header, so that a new one cannot be left out.
  for (const auto& entry : std::filesystem::directory_iterator(VARKEL_INCLUDE_DIR)) {
    const std::string header = entry.path().filename();
    std::ifstream in(entry.path());
    std::string text;
    for (std::string line; std::getline(in, line); text += line + "\n") {
      std::smatch m;
      if (std::regex_search(line, m, bare))
        unexported.insert(header + ": " + m[1].str());
    }
    // Declarations may span lines; the macro definition itself is not one.
    text = std::regex_replace(text, std::regex(R"(#define VARKEL_API.*)"), "");
    text = std::regex_replace(text, std::regex(R"(\s+)"), " ");
    for (const std::regex& r : {function, data})
      for (std::sregex_iterator it(text.begin(), text.end(), r), end; it != end; ++it)
        exported.insert((*it)[1]);
  }
  return {exported, unexported};
}

std::set<std::string> exported_names()
{
  std::set<std::string> names;
  const std::string command = std::string("nm -D --defined-only -C ") + VARKEL_LIBRARY;
  FILE* pipe = popen(command.c_str(), "r");
  std::array<char, 4096> line{};
  while (pipe && fgets(line.data(), line.size(), pipe)) {
    // "<address> <type> <name>": functions and data the library defines itself;
    // weak symbols are template instances of the standard library.
    char type = 0;
    char name[4000] = {};
    if (std::sscanf(line.data(), "%*s %c %3999[^\n]", &type, name) != 2 || std::strchr("TDBR", type) == nullptr)
      continue;
    std::string n = name;
    n = n.substr(0, n.find('('));
    if (n.rfind("std::", 0) != 0 && n.rfind("_", 0) != 0)
      names.insert(n);
  }
  if (pipe)
    pclose(pipe);
  return names;
}

TEST(Exports, ExactlyTheDeclaredApi)
{
  const auto [declared, unexported] = declarations();
  const auto exported = exported_names();
  ASSERT_GT(declared.size(), 40u);
  for (const auto& name : declared)
    EXPECT_TRUE(exported.count(name)) << name << " is declared but not exported";
  for (const auto& name : exported)
    EXPECT_TRUE(declared.count(name)) << name << " is exported but not declared";
  EXPECT_EQ(unexported, std::set<std::string>{});
  // Names no test calls: a declaration dropped from the header would leave the
  // comparison above satisfied.
  for (const char* name :
       {"dac_write_thread", "US_TemperatureMFB_RBV", "get_temperature_thread", "get_mfbtemperature_thread"})
    EXPECT_TRUE(exported.count(name)) << name;
  for (const char* internal : {"check_efuseRegister", "check_and_disable_sensor", "US_TemperatureChip"})
    EXPECT_FALSE(exported.count(internal)) << internal;
}

} // namespace
