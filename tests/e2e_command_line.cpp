// The varkel command line run as a child process against the simulator: exit
// statuses, the JSON object of each command family, its effect on the detector,
// and a silent controller that must not hang it.
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <memory>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <variant>

#include "fake_controller.hpp"
#include "fake_data_server.hpp"
#include "simulator.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
namespace sim = varkel::sim;
using Clock = std::chrono::steady_clock;

std::string slurp(const fs::path& p)
{
  std::ifstream in(p);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct Run {
  int status = -1;
  std::string out, err;
  double seconds = 0;
  json_object* json = nullptr; // stdout parsed, when it is one JSON object
  ~Run() { json_object_put(json); }

  // Member `key` of the JSON object, a path of names and array indices.
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
  std::string text(std::initializer_list<std::variant<const char*, int>> path) const
  {
    json_object* o = at(path);
    return o != nullptr ? json_object_get_string(o) : "";
  }
};

// Runs build/tools/varkel with `args`, standard output and error to files of the
// test's temporary directory.
std::unique_ptr<Run> varkel(const std::vector<std::string>& args)
{
  const fs::path dir = fs::temp_directory_path();
  const fs::path out = dir / ("cli-out-" + std::to_string(getpid())),
                 err = dir / ("cli-err-" + std::to_string(getpid()));
  std::vector<char*> argv{const_cast<char*>(VARKEL_CLI)};
  for (const auto& a : args)
    argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  auto r = std::make_unique<Run>();
  const auto t0 = Clock::now();
  pid_t pid = -1;
  if (posix_spawn(&pid, VARKEL_CLI, &actions, nullptr, argv.data(), environ) == 0 && waitpid(pid, &r->status, 0) == pid)
    r->status = WIFEXITED(r->status) ? WEXITSTATUS(r->status) : 128 + WTERMSIG(r->status);
  r->seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  posix_spawn_file_actions_destroy(&actions);
  r->out = slurp(out);
  r->err = slurp(err);
  fs::remove(out);
  fs::remove(err);
  // One object on one line, nothing else.
  if (!r->out.empty() && r->out.find('\n') == r->out.size() - 1)
    r->json = json_tokener_parse(r->out.c_str());
  return r;
}

// A simulator in this process, addressed by --module like a detector elsewhere.
struct Addressed {
  explicit Addressed(sim::Options o) : sim(std::move(o)) {}
  std::vector<std::string> args(std::vector<std::string> rest) const
  {
    std::vector<std::string> a;
    for (int m = 1; m <= sim.modules(); ++m)
      a.insert(a.end(), {"--module", "127.0.0.1:" + std::to_string(sim.module_port(m))});
    a.insert(a.end(), {"--data-server", "127.0.0.1:" + std::to_string(sim.data_port()), "--json"});
    a.insert(a.end(), rest.begin(), rest.end());
    return a;
  }
  sim::Simulator sim;
};

sim::Options quiet_quad()
{
  sim::Options o;
  o.publish_frame = false; // no machine-wide segment: these tests run beside others
  return o;
}

TEST(CommandLine, GetAndPutByNameReachTheAddressedModulesAndChips)
{
  const Addressed d(quiet_quad());
  auto r = varkel(d.args({"put", "exposure", "0.25"}));
  ASSERT_EQ(r->status, 0) << r->err;
  EXPECT_EQ(json_object_array_length(r->at({"written"})), 4u);
  for (int m = 1; m <= 4; ++m)
    EXPECT_EQ(d.sim.module(m).exposure_us, 250000u) << m;

  r = varkel(d.args({"put", "exposures", "7", "--module", "3"}));
  ASSERT_EQ(r->status, 0) << r->err;
  EXPECT_EQ(d.sim.module(3).exposures, 7u);
  EXPECT_NE(d.sim.module(2).exposures, 7u);

  // A later process reads back what the first wrote, module by module.
  r = varkel(d.args({"get", "exposures"}));
  ASSERT_EQ(r->status, 0) << r->err;
  ASSERT_EQ(json_object_array_length(r->at({"values"})), 4u);
  EXPECT_EQ(r->integer({"values", 2, "module"}), 3);
  EXPECT_EQ(r->integer({"values", 2, "value"}), 7);

  // A chip setting, one chip, by value name both ways.
  r = varkel(d.args({"put", "polarity", "holes", "--module", "2", "--chip", "5"}));
  ASSERT_EQ(r->status, 0) << r->err;
  r = varkel(d.args({"get", "polarity", "--module", "2", "--chip", "5"}));
  ASSERT_EQ(r->status, 0) << r->err;
  ASSERT_EQ(json_object_array_length(r->at({"values"})), 1u);
  EXPECT_EQ(r->integer({"values", 0, "chip"}), 5);
  EXPECT_EQ(r->text({"values", 0, "text"}), "holes");
}

TEST(CommandLine, RefusalsAndSilenceEndWithTheirStatusAndAMessage)
{
  const Addressed d(quiet_quad());
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* says;
  };
  const Case cases[] = {
      {{"get", "no-such-name"}, 2, "unknown name 'no-such-name'"},
      {{"put", "polarity", "sideways"}, 2, "bad value 'sideways' for polarity"},
      {{"get", "exposure", "--module", "5"}, 2, "--module 5"},
      {{"scan", "GND", "--step", "1"}, 2, "1 to 69 steps"},
  };
  const uint64_t before = d.sim.commands(1);
  for (const Case& c : cases) {
    const auto r = varkel(d.args(c.args));
    EXPECT_EQ(r->status, c.status) << c.args[0] << " " << c.args[1];
    EXPECT_NE(r->err.find(c.says), std::string::npos) << r->err;
    EXPECT_FALSE(json_object_get_boolean(r->at({"ok"}))) << r->out;
  }
  EXPECT_EQ(d.sim.commands(1), before) << "a refused command sends nothing";

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

  const std::string png = (fs::temp_directory_path() / "cli-frame.png").string();
  r = varkel({"--sim", "quad", "--json", "acquire", "--exposures", "3", "--exposure", "0.01", "--period", "0.02",
              "--png", png});
  ASSERT_EQ(r->status, 0) << r->err;
  EXPECT_EQ(r->integer({"taken"}), 3);
  for (int m = 0; m < 4; ++m)
    EXPECT_EQ(r->integer({"frames", m}), 3);
  EXPECT_EQ(r->integer({"png", "width"}), 789);
  EXPECT_EQ(slurp(png).substr(1, 3), "PNG");
  fs::remove(png);

  // Without a data server there is no acquisition: a usage error, nothing started.
  const Addressed d(quiet_quad());
  std::vector<std::string> args = d.args({"acquire"});
  args.erase(args.begin() + 8, args.begin() + 10); // --data-server HOST:PORT
  r = varkel(args);
  EXPECT_EQ(r->status, 2) << r->err;
  EXPECT_FALSE(d.sim.module(1).acquiring);
}

TEST(CommandLine, TemperatureTablesAndThePresenceCheck)
{
  sim::Options o = quiet_quad();
  o.missing = {{2, 29}};
  const Addressed d(o);
  auto r = varkel(d.args({"chips"}));
  ASSERT_EQ(r->status, 0) << r->err;
  for (int m = 0; m < 4; ++m) {
    EXPECT_EQ(r->integer({"modules", m, "answering"}), m == 1 ? 35 : 36);
    EXPECT_EQ(json_object_array_length(r->at({"modules", m, "disabled"})), m == 1 ? 1u : 0u);
  }
  EXPECT_EQ(r->integer({"modules", 1, "disabled", 0}), 29);

  r = varkel(d.args({"temps"}));
  ASSERT_EQ(r->status, 0) << r->err;
  ASSERT_EQ(json_object_array_length(r->at({"modules"})), 4u);
  EXPECT_EQ(json_object_array_length(r->at({"modules", 3, "boards"})), 3u);
  EXPECT_EQ(json_object_array_length(r->at({"modules", 3, "boards", 2})), 16u);
  EXPECT_EQ(json_object_array_length(r->at({"modules", 3, "chips"})), 36u);
  EXPECT_GT(json_object_get_double(r->at({"modules", 3, "average"})), 20.0);
}

TEST(CommandLine, ScanWritesTheCodeNearestTheAim)
{
  const Addressed d(quiet_quad());
  auto r = varkel(d.args({"scan", "dac.GND", "--module", "4", "--chip", "12"}));
  ASSERT_EQ(r->status, 0) << r->err;
  ASSERT_EQ(json_object_array_length(r->at({"chips"})), 1u);
  EXPECT_EQ(r->integer({"chips", 0, "module"}), 4);
  EXPECT_NEAR(json_object_get_double(r->at({"chips", 0, "volts"})), 0.65, 0.03);
  const int code = r->integer({"chips", 0, "code"});
  // The code stays on the chip: a later get reads it.
  r = varkel(d.args({"get", "dac.GND", "--module", "4", "--chip", "12"}));
  ASSERT_EQ(r->status, 0) << r->err;
  EXPECT_EQ(r->integer({"values", 0, "value"}), code);
}

TEST(CommandLine, ConfigSaveDiffApplyAcrossProcesses)
{
  const Addressed d(quiet_quad());
  const std::string saved = (fs::temp_directory_path() / "cli-saved.ini").string();
  const std::string changed = (fs::temp_directory_path() / "cli-changed.ini").string();
  auto r = varkel(d.args({"config", "save", saved}));
  ASSERT_EQ(r->status, 0) << r->err;
  ASSERT_EQ(varkel(d.args({"put", "dac.GND", "77", "--module", "2", "--chip", "7"}))->status, 0);
  ASSERT_EQ(varkel(d.args({"config", "save", changed}))->status, 0);

  // The detector and the second file both differ from the first in that one DAC.
  for (const std::vector<std::string>& diff :
       {std::vector<std::string>{"config", "diff", saved}, {"config", "diff", saved, "--against", changed}}) {
    r = varkel(d.args(diff));
    ASSERT_EQ(r->status, 0) << r->err;
    ASSERT_EQ(json_object_array_length(r->at({"entries"})), 1u) << r->out;
    EXPECT_EQ(r->text({"entries", 0, "name"}), "dac.GND");
    EXPECT_EQ(r->integer({"entries", 0, "module"}), 2);
    EXPECT_EQ(r->integer({"entries", 0, "chip"}), 7);
  }

  r = varkel(d.args({"config", "apply", saved}));
  ASSERT_EQ(r->status, 0) << r->err;
  ASSERT_EQ(json_object_array_length(r->at({"entries"})), 1u) << r->out;
  EXPECT_TRUE(json_object_get_boolean(r->at({"entries", 0, "verified"})));
  r = varkel(d.args({"config", "diff", saved}));
  EXPECT_EQ(json_object_array_length(r->at({"entries"})), 0u) << r->out;

  // A broken file: refused with its line, status 1, nothing written.
  std::ofstream(changed) << "[snapshot]\nformat=1\nmodel=varkelQuad\n[module1]\nexposure=fast\n";
  const uint64_t before = d.sim.commands(1);
  r = varkel(d.args({"config", "apply", changed}));
  EXPECT_EQ(r->status, 1);
  EXPECT_GT(r->integer({"line"}), 0) << r->out;
  EXPECT_NE(r->err.find(changed), std::string::npos) << r->err;
  EXPECT_LE(d.sim.commands(1), before + 1) << "only the attach's check reaches the controller";
  fs::remove(saved);
  fs::remove(changed);
}

} // namespace
