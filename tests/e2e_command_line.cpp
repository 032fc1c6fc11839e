// The varkel command line run as a child process against the simulator: exit
// statuses with and without --json, the JSON object of each command family, its
// effect on the detector, refusing and silent controllers, interrupts and chips
// switched off.
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <iterator>
#include <json-c/json.h>
#include <memory>
#include <sstream>
#include <thread>
#include <variant>

#include "fake_controller.hpp"
#include "files.hpp"
#include "process.hpp"
#include "refusal.h"
#include "simulated_detector.hpp"

namespace {

namespace sim = varkel::sim;
using varkel::testing::FakeController;
using varkel::testing::Reply;
using varkel::testing::Request;
using varkel::testing::TempFile;
using Path = std::initializer_list<std::variant<const char*, int>>;

struct Run {
  int status = -1;
  std::string out, err;
  json_object* json = nullptr; // stdout parsed, when it is one JSON object on one line
  ~Run() { json_object_put(json); }

  // A member of the JSON object, by a path of names and array indices.
  json_object* at(Path path) const
  {
    json_object* o = json;
    for (const auto& step : path)
      o = std::holds_alternative<int>(step) ? json_object_array_get_idx(o, std::get<int>(step))
                                            : json_object_object_get(o, std::get<const char*>(step));
    return o;
  }
  int integer(Path path) const { return json_object_get_int(at(path)); }
  std::size_t length(Path path) const { return json_object_array_length(at(path)); }
  bool says(const std::string& text) const { return err.find(text) != std::string::npos; }
};

// Runs build/tools/varkel with the words of `line`, standard output and error to
// files; while it runs, `meanwhile(pid)` runs here.
template <typename Meanwhile = void (*)(pid_t)>
std::unique_ptr<Run> varkel(
    const std::string& line, Meanwhile meanwhile = [](pid_t) {})
{
  const TempFile out("cli-out"), err("cli-err");
  std::istringstream in(line);
  std::vector<std::string> args{VARKEL_CLI};
  args.insert(args.end(), std::istream_iterator<std::string>(in), {});
  const int fd[2] = {open(out.path.c_str(), O_WRONLY | O_CREAT, 0644),
                     open(err.path.c_str(), O_WRONLY | O_CREAT, 0644)};
  const pid_t pid = varkel::testing::spawn(args, fd[0], fd[1]);
  close(fd[0]);
  close(fd[1]);
  meanwhile(pid);
  auto r = std::make_unique<Run>();
  r->status = varkel::testing::exit_status(pid);
  r->out = out.text();
  r->err = err.text();
  if (!r->out.empty() && r->out.find('\n') == r->out.size() - 1)
    r->json = json_tokener_parse(r->out.c_str());
  return r;
}

// A simulator in this process, addressed by --module like a detector elsewhere.
struct Addressed {
  explicit Addressed(std::vector<sim::MissingChip> missing = {}, varkel_detector_model_t model = varkelQuad)
      : sim(varkel::testing::options_without_frame(model, std::move(missing)))
  {
  }
  std::string args(const std::string& rest, bool json = true, bool data_server = true) const
  {
    std::string line = std::string("--model ") + sim::model_name(sim.options().model);
    for (int m = 1; m <= sim.modules(); ++m)
      line += " --module 127.0.0.1:" + std::to_string(sim.module_port(m));
    if (data_server)
      line += " --data-server 127.0.0.1:" + std::to_string(sim.data_port());
    return line + (json ? " --json " : " ") + rest;
  }
  sim::Simulator sim;
};

TEST(CommandLine, GetPutAndScanReachTheAddressedModulesAndChips)
{
  for (const varkel_detector_model_t model : {varkelQuad, varkelLite}) {
    const Addressed d({}, model);
    const int modules = d.sim.modules();
    const std::string last = std::to_string(modules);
    auto r = varkel(d.args("put exposure 0.25"));
    ASSERT_EQ(r->length({"written"}), static_cast<std::size_t>(modules)) << r->err;
    // put shows what the detector holds: a time below its unit reads back as 0.
    EXPECT_EQ(varkel(d.args("put exposure 1e-9", false))->out, "exposure = 0\n");

    ASSERT_EQ(varkel(d.args("put exposures 7 --module " + last))->status, 0);
    r = varkel(d.args("get exposures"));
    ASSERT_EQ(r->length({"values"}), static_cast<std::size_t>(modules)) << r->out;
    EXPECT_EQ(std::pair(r->integer({"values", modules - 1, "module"}), r->integer({"values", modules - 1, "value"})),
              std::pair(modules, 7));

    // Every chip of the model by its chip number; then one of them, by value name both ways.
    r = varkel(d.args("get polarity --module 1"));
    ASSERT_EQ(r->length({"values"}), model == varkelQuad ? 36u : 12u) << r->out;
    const std::string chip = " --module 1 --chip " + std::to_string(r->integer({"values", 4, "chip"}));
    ASSERT_EQ(varkel(d.args("put polarity holes" + chip))->status, 0);
    EXPECT_STREQ(json_object_get_string(varkel(d.args("get polarity" + chip))->at({"values", 0, "text"})), "holes");

    // A scan leaves the code nearest the aim on the chip: a later get reads it.
    r = varkel(d.args("scan dac.GND" + chip));
    ASSERT_EQ(r->length({"chips"}), 1u) << r->err;
    EXPECT_NEAR(json_object_get_double(r->at({"chips", 0, "volts"})), 0.65, 0.03);
    EXPECT_EQ(varkel(d.args("get dac.GND" + chip))->integer({"values", 0, "value"}), r->integer({"chips", 0, "code"}));
  }
}

TEST(CommandLine, StatusAndMessageAlikeWithAndWithoutJson)
{
  const Addressed d({{2, 29}});
  const std::tuple<const char*, bool, int, const char*> cases[] = {
      // args, addressed, status, says
      {"get no-such-name", true, 2, "unknown name 'no-such-name'"},
      {"put polarity sideways", true, 2, "bad value 'sideways' for polarity"},
      {"get exposure --module 0", true, 2, "--module"},
      {"get gain --chip 0", true, 2, "--chip"},
      {"scan GND --step 1", true, 2, "1 to 69 steps"},
      {"acquire --exposures 0", true, 2, "--exposures"},
      {"frobnicate", false, 2, "does not know the command 'frobnicate'; the commands are init, names, get"},
      {"--sim quad --model trio get exposure", false, 2, "--sim quad starts its own detector"},
      {"--sim quad --missing-chip 2:37 get exposure", false, 2, "no chip number 37"},
      {"get gain --module 2 --chip 29", true, 1, "varkel: module 2 chip 29: get gain: the chip is switched off\n"},
      {"put gain low --module 2 --chip 29", true, 1, "module 2 chip 29: put gain: the chip is switched off\n"},
      {"scan GND --module 2 --chip 29", true, 1, "module 2 chip 29: scan of GND: the chip is switched off\n"},
  };
  for (const auto& [args, addressed, status, says] : cases)
    for (const bool json : {false, true}) {
      const uint64_t before = d.sim.commands(2);
      const auto r = varkel(addressed ? d.args(args, json) : (json ? "--json " : "") + std::string(args));
      EXPECT_EQ(r->status, status) << args << " " << json;
      EXPECT_TRUE(status != 2 || d.sim.commands(2) == before) << "a refused command line sends nothing";
      EXPECT_TRUE(r->says(says)) << r->err;
      EXPECT_EQ(json, r->json != nullptr && !json_object_get_boolean(r->at({"ok"})) && r->length({"errors"}) == 1)
          << r->out;
    }
  EXPECT_EQ(varkel(d.args("acquire", true, false))->status, 2) << "no data server, no acquisition";
}

TEST(CommandLine, ChipsSwitchedOffAreLeftOutOfCommandsOverEveryChip)
{
  const Addressed d({{2, 29}});
  for (const char* args : {"get gain", "put gain low", "scan GND", "temps"}) {
    const auto r = varkel(d.args(args));
    ASSERT_EQ(r->status, 0) << args << r->err;
    ASSERT_EQ(r->length({"left_out"}), 1u) << r->out;
    EXPECT_EQ(std::pair(r->integer({"left_out", 0, "module"}), r->integer({"left_out", 0, "chip"})), std::pair(2, 29));
    // The temperatures keep the library's walk over every chip number.
    const auto listed = args[0] == 's'   ? r->length({"chips"})
                        : args[0] == 't' ? 4 * r->length({"modules", 1, "chips"})
                                         : r->length({"values"});
    EXPECT_EQ(listed, args[0] == 't' ? 144u : 143u) << args;
  }
  EXPECT_NE(varkel(d.args("get gain --module 2", false))->out.find("module 2: chip 29 switched off, left out"),
            std::string::npos);
  const auto r = varkel(d.args("chips"));
  for (int m = 0; m < 4; ++m)
    EXPECT_EQ(r->integer({"modules", m, "answering"}), m == 1 ? 35 : 36);
  EXPECT_EQ(r->integer({"modules", 1, "disabled", 0}), 29);
}

TEST(CommandLine, RefusingAndSilentControllersAreNamedWithTheirCommand)
{
  Reply silence;
  silence.action = Reply::Action::silence;
  const std::tuple<const char*, Reply, const char*, const char*> cases[] = {
      {"HS_AcquireTime_Command 1 500000", Reply::error("interlock: refused"), "put exposure 0.5",
       "varkel: module 1: put exposure: the controller refused HS_AcquireTime_Command 1 500000: interlock: refused\n"},
      {"HS_AcquireTime_Command 0 0", silence, "get exposure",
       "varkel: module 1: get exposure: did not answer HS_AcquireTime_Command 0 0 within 0.3 s\n"},
  };
  for (const auto& [command, reply, args, says] : cases) {
    // Otherwise a one-board controller with every chip there, as the presence check sees it.
    FakeController fake([&, command = command, reply = reply](const Request& q) {
      if (q.command() == command)
        return reply;
      if (q.method == "SelectMedipixBoard_Command" || q.method == "HS_ImgChipNumberID_Command")
        return Reply::result((q.method[0] == 'S' ? "Medipix board " : "Chip ") + q.params.at(1) + " selected");
      return Reply::result(q.method == "ReadReg" || q.method == "HS_efuseID_RBV" ? "1a2b" : "0.001000");
    });
    const std::string line = "--module 127.0.0.1:" + std::to_string(fake.port()) + " --model lite --timeout 0.3 ";
    EXPECT_EQ(varkel(line + args)->err, says);
    const auto r = varkel(line + "--json " + args);
    EXPECT_EQ(r->status, 1);
    EXPECT_EQ(r->integer({"errors", 0, "module"}), 1) << r->out;
    EXPECT_EQ(r->integer({"errors", 0, "code"}), reply.action == Reply::Action::silence ? -1 : VARKEL_REFUSED);
  }
}

TEST(CommandLine, AcquireWithPictureAndInterruptedBySignals)
{
  auto r = varkel("--sim quad --json init");
  ASSERT_EQ(r->integer({"modules"}), 4) << r->err;

  const TempFile png("cli-frame");
  r = varkel("--sim quad --json acquire --exposures 3 --exposure 0.01 --period 0.02 --lead 1 --png " + png.path);
  ASSERT_EQ(r->status, 0) << r->err;
  EXPECT_EQ(std::pair(r->integer({"taken"}), r->integer({"frames"})), std::pair(3, 12)) << "module 1 leads all four";
  EXPECT_EQ(r->integer({"png", "width"}), 789);
  EXPECT_EQ(png.text().substr(1, 3), "PNG");

  // Once the acquisition has started (its command is in the library's trace), a
  // signal ends it: the modules told to stop, the status 128 + the signal.
  for (const int signo : {SIGINT, SIGTERM}) {
    const TempFile log("cli-log");
    r = varkel("--sim quad --json --log " + log.path + " acquire --exposures 40 --exposure 0.2 --period 0.5",
               [&](pid_t pid) {
                 for (int i = 0; i < 2000 && log.text().find("\"HS_Acquire_Command\"") == std::string::npos; ++i)
                   std::this_thread::sleep_for(std::chrono::milliseconds(10));
                 kill(pid, signo);
               });
    EXPECT_EQ(r->status, 128 + signo);
    EXPECT_TRUE(r->says(" of 40 exposures; the detector was stopped")) << r->err;
    EXPECT_TRUE(json_object_get_boolean(r->at({"stopped"}))) << r->out;
  }
}

TEST(CommandLine, ConfigSaveDiffApplyAcrossProcesses)
{
  const Addressed d;
  const TempFile saved_file("cli-saved"), changed_file("cli-changed");
  const std::string &saved = saved_file.path, &changed = changed_file.path;
  ASSERT_EQ(varkel(d.args("config save " + saved))->status, 0);
  ASSERT_EQ(varkel(d.args("put dac.GND 77 --module 2 --chip 7"))->status, 0);
  ASSERT_EQ(varkel(d.args("config save " + changed))->status, 0);

  // The detector and the second file both differ from the first in that one DAC.
  for (const std::string& against : {std::string(), " --against " + changed}) {
    const auto r = varkel(d.args("config diff " + saved + against));
    ASSERT_EQ(r->length({"entries"}), 1u) << r->out << r->err;
    EXPECT_STREQ(json_object_get_string(r->at({"entries", 0, "name"})), "dac.GND");
    EXPECT_EQ(std::pair(r->integer({"entries", 0, "module"}), r->integer({"entries", 0, "chip"})), std::pair(2, 7));
  }
  auto r = varkel(d.args("config apply " + saved));
  ASSERT_EQ(r->length({"entries"}), 1u) << r->out << r->err;
  EXPECT_TRUE(json_object_get_boolean(r->at({"entries", 0, "verified"})));
  EXPECT_NE(varkel(d.args("config apply " + saved, false))->out.find(": nothing differed, nothing written"),
            std::string::npos);

  // A broken file: refused with its line, status 1.
  changed_file.write("[snapshot]\nformat=1\nmodel=varkelQuad\n[module1]\nexposure=fast\n");
  r = varkel(d.args("config apply " + changed));
  EXPECT_EQ(r->status, 1);
  EXPECT_GT(r->integer({"line"}), 0) << r->out;
  EXPECT_TRUE(r->says(changed)) << r->err;
}

} // namespace
