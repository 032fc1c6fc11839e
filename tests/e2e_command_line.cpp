// The varkel command line run as a child process against the simulator: exit
// statuses, the JSON object of each command family, its effect on the detector,
// and a silent controller that must not hang it.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>
#include <variant>

#include "fake_controller.hpp"
#include "fake_data_server.hpp"
#include "files.hpp"
#include "simulated_detector.hpp"

namespace {

namespace fs = std::filesystem;
namespace sim = varkel::sim;
using varkel::testing::TempFile;

struct Run {
  int status = -1;
  std::string out, err;
  double seconds = 0;
  json_object* json = nullptr; // stdout parsed, when it is one JSON object on one line
  ~Run() { json_object_put(json); }

  // A member of the JSON object, by a path of names and array indices.
  json_object* at(std::initializer_list<std::variant<const char*, int>> path) const
  {
    json_object* o = json;
    for (const auto& step : path)
      o = std::holds_alternative<int>(step) ? json_object_array_get_idx(o, std::get<int>(step))
                                            : json_object_object_get(o, std::get<const char*>(step));
    return o;
  }
  int integer(std::initializer_list<std::variant<const char*, int>> path) const
  {
    return json_object_get_int(at(path));
  }
  std::size_t length(std::initializer_list<std::variant<const char*, int>> path) const
  {
    return json_object_array_length(at(path));
  }
};

// Runs build/tools/varkel with `args` (no quotes in them), standard error to a
// file of the test's temporary directory.
std::unique_ptr<Run> varkel(const std::vector<std::string>& args)
{
  const TempFile err("cli-err");
  std::string command = "'" VARKEL_CLI "'";
  for (const auto& a : args)
    command += " '" + a + "'";
  auto r = std::make_unique<Run>();
  const auto t0 = std::chrono::steady_clock::now();
  FILE* pipe = popen((command + " 2>" + err.path).c_str(), "r");
  for (char buffer[4096]; size_t n = fread(buffer, 1, sizeof buffer, pipe);)
    r->out.append(buffer, n);
  const int status = pclose(pipe);
  r->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  r->err = err.text();
  if (!r->out.empty() && r->out.find('\n') == r->out.size() - 1)
    r->json = json_tokener_parse(r->out.c_str());
  return r;
}

// A simulator in this process, addressed by --module like a detector elsewhere.
struct Addressed {
  explicit Addressed(std::vector<sim::MissingChip> missing = {})
      : sim(varkel::testing::options_without_frame(varkelQuad, std::move(missing)))
  {
  }
  std::vector<std::string> args(std::vector<std::string> rest, bool data_server = true) const
  {
    std::vector<std::string> a;
    for (int m = 1; m <= sim.modules(); ++m)
      a.insert(a.end(), {"--module", "127.0.0.1:" + std::to_string(sim.module_port(m))});
    if (data_server)
      a.insert(a.end(), {"--data-server", "127.0.0.1:" + std::to_string(sim.data_port())});
    a.push_back("--json");
    a.insert(a.end(), rest.begin(), rest.end());
    return a;
  }
  sim::Simulator sim;
};

TEST(CommandLine, GetPutAndScanReachTheAddressedModulesAndChips)
{
  const Addressed d;
  auto r = varkel(d.args({"put", "exposure", "0.25"}));
  ASSERT_EQ(r->status, 0) << r->err;
  EXPECT_EQ(r->length({"written"}), 4u);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(d.sim.module(m).exposure_us, 250000u) << m;

  ASSERT_EQ(varkel(d.args({"put", "exposures", "7", "--module", "3"}))->status, 0);
  EXPECT_EQ(d.sim.module(3).exposures, 7u);
  EXPECT_NE(d.sim.module(2).exposures, 7u);
  // A later process reads back what the first wrote, module by module.
  r = varkel(d.args({"get", "exposures"}));
  ASSERT_EQ(r->length({"values"}), 4u) << r->out;
  EXPECT_EQ(r->integer({"values", 2, "module"}), 3);
  EXPECT_EQ(r->integer({"values", 2, "value"}), 7);

  // A chip setting, one chip, by value name both ways.
  ASSERT_EQ(varkel(d.args({"put", "polarity", "holes", "--module", "2", "--chip", "5"}))->status, 0);
  r = varkel(d.args({"get", "polarity", "--module", "2", "--chip", "5"}));
  ASSERT_EQ(r->length({"values"}), 1u) << r->out;
  EXPECT_EQ(r->integer({"values", 0, "chip"}), 5);
  EXPECT_STREQ(json_object_get_string(r->at({"values", 0, "text"})), "holes");

  // A scan leaves the code nearest the aim on the chip: a later get reads it.
  r = varkel(d.args({"scan", "dac.GND", "--module", "4", "--chip", "12"}));
  ASSERT_EQ(r->length({"chips"}), 1u) << r->err;
  EXPECT_EQ(r->integer({"chips", 0, "module"}), 4);
  EXPECT_NEAR(json_object_get_double(r->at({"chips", 0, "volts"})), 0.65, 0.03);
  const int code = r->integer({"chips", 0, "code"});
  EXPECT_EQ(varkel(d.args({"get", "dac.GND", "--module", "4", "--chip", "12"}))->integer({"values", 0, "value"}), code);
}

TEST(CommandLine, RefusalsAndSilenceEndWithTheirStatusAndAMessage)
{
  const Addressed d;
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"get", "no-such-name"}, "unknown name 'no-such-name'"},
      {{"put", "polarity", "sideways"}, "bad value 'sideways' for polarity"},
      {{"get", "exposure", "--module", "5"}, "--module 5"},
      {{"scan", "GND", "--step", "1"}, "1 to 69 steps"},
  };
  const uint64_t before = d.sim.commands(1);
  for (const auto& [args, says] : cases) {
    const auto r = varkel(d.args(args));
    EXPECT_EQ(r->status, 2) << args[0] << " " << args[1];
    EXPECT_NE(r->err.find(says), std::string::npos) << r->err;
    EXPECT_FALSE(json_object_get_boolean(r->at({"ok"}))) << r->out;
  }
  EXPECT_EQ(d.sim.commands(1), before) << "a refused command sends nothing";
  // Without a data server there is no acquisition: a usage error, nothing started.
  EXPECT_EQ(varkel(d.args({"acquire"}, false))->status, 2);
  EXPECT_FALSE(d.sim.module(1).acquiring);

  // A controller that accepts and never answers: the command fails after about
  // --timeout, naming the module.
  varkel::testing::FakeController silent([](const varkel::testing::Request&) {
    varkel::testing::Reply r;
    r.action = varkel::testing::Reply::Action::silence;
    return r;
  });
  const auto r = varkel({"--module", "127.0.0.1:" + std::to_string(silent.port()), "--model", "kinlet", "--timeout",
                         "0.3", "--json", "get", "exposure"});
  EXPECT_EQ(r->status, 1);
  EXPECT_LT(r->seconds, 3.0);
  EXPECT_NE(r->err.find("varkel: module 1: "), std::string::npos) << r->err;
  EXPECT_EQ(r->integer({"errors", 0, "module"}), 1) << r->out;
}

TEST(CommandLine, InitAcquireWithProgressAndPicture)
{
  const varkel::testing::ShmNamesLock lock; // --sim quad publishes the frame under the machine-wide names
  auto r = varkel({"--sim", "quad", "--json", "init"});
  ASSERT_EQ(r->status, 0) << r->err;
  EXPECT_EQ(r->integer({"modules"}), 4);

  const TempFile png("cli-frame");
  r = varkel({"--sim", "quad", "--json", "acquire", "--exposures", "3", "--exposure", "0.01", "--period", "0.02",
              "--png", png.path});
  ASSERT_EQ(r->status, 0) << r->err;
  EXPECT_EQ(r->integer({"taken"}), 3);
  for (int m = 0; m < 4; ++m)
    EXPECT_EQ(r->integer({"frames", m}), 3);
  EXPECT_EQ(r->integer({"png", "width"}), 789);
  EXPECT_EQ(png.text().substr(1, 3), "PNG");
}

TEST(CommandLine, TemperatureTablesAndThePresenceCheck)
{
  const Addressed d({{2, 29}});
  auto r = varkel(d.args({"chips"}));
  ASSERT_EQ(r->status, 0) << r->err;
  for (int m = 0; m < 4; ++m) {
    EXPECT_EQ(r->integer({"modules", m, "answering"}), m == 1 ? 35 : 36);
    EXPECT_EQ(r->length({"modules", m, "disabled"}), m == 1 ? 1u : 0u);
  }
  EXPECT_EQ(r->integer({"modules", 1, "disabled", 0}), 29);

  r = varkel(d.args({"temps"}));
  ASSERT_EQ(r->length({"modules"}), 4u) << r->err;
  EXPECT_EQ(r->length({"modules", 3, "boards"}), 3u);
  EXPECT_EQ(r->length({"modules", 3, "boards", 2}), 16u);
  EXPECT_EQ(r->length({"modules", 3, "chips"}), 36u);
  EXPECT_GT(json_object_get_double(r->at({"modules", 3, "average"})), 20.0);
}

TEST(CommandLine, ConfigSaveDiffApplyAcrossProcesses)
{
  const Addressed d;
  const TempFile saved_file("cli-saved"), changed_file("cli-changed");
  const std::string &saved = saved_file.path, &changed = changed_file.path;
  ASSERT_EQ(varkel(d.args({"config", "save", saved}))->status, 0);
  ASSERT_EQ(varkel(d.args({"put", "dac.GND", "77", "--module", "2", "--chip", "7"}))->status, 0);
  ASSERT_EQ(varkel(d.args({"config", "save", changed}))->status, 0);

  // The detector and the second file both differ from the first in that one DAC.
  for (const auto& against : {std::vector<std::string>{}, {"--against", changed}}) {
    std::vector<std::string> diff = {"config", "diff", saved};
    diff.insert(diff.end(), against.begin(), against.end());
    const auto r = varkel(d.args(diff));
    ASSERT_EQ(r->length({"entries"}), 1u) << r->out << r->err;
    EXPECT_STREQ(json_object_get_string(r->at({"entries", 0, "name"})), "dac.GND");
    EXPECT_EQ(std::pair(r->integer({"entries", 0, "module"}), r->integer({"entries", 0, "chip"})), std::pair(2, 7));
  }
  auto r = varkel(d.args({"config", "apply", saved}));
  ASSERT_EQ(r->length({"entries"}), 1u) << r->out << r->err;
  EXPECT_TRUE(json_object_get_boolean(r->at({"entries", 0, "verified"})));
  EXPECT_EQ(varkel(d.args({"config", "diff", saved}))->length({"entries"}), 0u);

  // A broken file: refused with its line, status 1, nothing written.
  changed_file.write("[snapshot]\nformat=1\nmodel=varkelQuad\n[module1]\nexposure=fast\n");
  const uint64_t before = d.sim.commands(1);
  r = varkel(d.args({"config", "apply", changed}));
  EXPECT_EQ(r->status, 1);
  EXPECT_GT(r->integer({"line"}), 0) << r->out;
  EXPECT_NE(r->err.find(changed), std::string::npos) << r->err;
  EXPECT_LE(d.sim.commands(1), before + 1) << "only the attach's check reaches the controller";
}

} // namespace
