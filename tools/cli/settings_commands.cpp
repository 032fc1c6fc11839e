// get, put and names: every setting by the library's readable name.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "commands.hpp"
#include "common/text.hpp"

namespace varkel::cli {

using tools::format;

const varkel_setting_t* find_setting(const std::string& name, Output& out)
{
  const varkel_setting_t* s = varkel_setting_find(name.c_str());
  if (s == nullptr)
    out.refuse("unknown name '" + name + "' (varkel names lists them)");
  return s;
}

std::string shown(const varkel_setting_t* s, double value)
{
  char text[64];
  if (varkel_setting_format(s, value, text, sizeof text) != 0)
    return format("%g", value);
  return text;
}

json_object* json_value(const varkel_setting_t* s, double value)
{
  const std::string text = shown(s, value);
  char* end = nullptr;
  std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0' ? json_number(value, text.c_str()) : json_number(value);
}

std::string setting_names_help()
{
  static const char* const kScope[] = {"per module", "per chip", "detector"};
  std::string help = "Names (get NAME, put NAME VALUE):\n";
  for (int i = 0; i < varkel_settings_count(); ++i) {
    const varkel_setting_t* s = varkel_setting_at(i);
    const char* scope = s->scope >= 0 && s->scope <= 2 ? kScope[s->scope] : "";
    const std::string about = format("%s (%s%s)", s->help, scope, s->writable ? "" : ", read-only");
    // Long lists of value names get a line of their own.
    if (std::strlen(s->values) > 28)
      help += format("  %-22s %-28s %s\n  %-22s %s\n", s->name, "", about.c_str(), "", s->values);
    else
      help += format("  %-22s %-28s %s\n", s->name, s->values, about.c_str());
  }
  return help;
}

void address_options(CLI::App* command, Address& at, const char* chip_help)
{
  command->add_option("--module", at.module, "module 1..4 (default: every module)")->check(CLI::Range(1, 4));
  if (chip_help != nullptr)
    command->add_option("--chip", at.chip, chip_help)->check(CLI::Range(1, 36));
}

namespace {

// Where one setting is read or written. Module settings go module by module, so
// that a failure names its module; a chip setting is read chip by chip over the
// working chips, written to the named chip or, with chip 0, by the library's
// all-chips write; a detector-wide setting once.
struct Place {
  int module;
  int chip;
};

std::vector<Place> places(const Detector& d, const varkel_setting_t* s, Address at, bool reading,
                          std::vector<LeftOut>& left_out)
{
  if (s->scope == VARKEL_SETTING_DETECTOR)
    return {{reading ? 1 : 0, 0}};
  std::vector<Place> all;
  for (int m : d.modules_of(at)) {
    const bool chip_by_chip = s->scope == VARKEL_SETTING_CHIP && (reading || at.chip != 0);
    if (!chip_by_chip)
      all.push_back({m, 0});
    for (int c : chip_by_chip ? d.chips_of(m, at, &left_out) : std::vector<int>{})
      all.push_back({m, c});
  }
  return all;
}

std::string place_text(Place p)
{
  if (p.module == 0)
    return "detector";
  return p.chip > 0 ? format("module %d chip %d", p.module, p.chip) : format("module %d", p.module);
}

// Reads `s` back at every place of `at` into JSON "values"; prints one value when
// every place reads the same (the usual answer to "what is it now?"), else one
// line per place, each after `prefix`.
void read_back(Detector& d, Output& out, const varkel_setting_t* s, Address at, const std::string& prefix)
{
  const std::string what = "get " + std::string(s->name);
  json_object* list = json_object_new_array();
  out.set("values", list);
  std::vector<LeftOut> left_out;
  std::vector<std::pair<Place, std::string>> read;
  int failed_module = -1; // a module that failed once is not asked again
  for (const Place& p : places(d, s, at, true, left_out)) {
    double value = 0;
    if (p.module == failed_module || d.switched_off(out, p.module, p.chip, what) ||
        !d.run(out, p.module, p.chip, what,
               [&] { return varkel_setting_get(d.handle(), s, p.module, p.chip, &value); })) {
      failed_module = p.module;
      continue;
    }
    json_object* o = s->scope == VARKEL_SETTING_DETECTOR ? json_object_new_object() : json_place(p.module, p.chip);
    json_object_object_add(o, "value", json_value(s, value));
    json_object_object_add(o, "text", json_text(shown(s, value)));
    json_object_array_add(list, o);
    read.emplace_back(p, shown(s, value));
  }
  std::set<std::string> distinct;
  for (const auto& r : read)
    distinct.insert(r.second);
  if (distinct.size() == 1 && out.ok())
    out.text("%s%s\n", prefix.c_str(), distinct.begin()->c_str());
  else
    for (const auto& [p, text] : read)
      out.text("%-18s %s%s\n", place_text(p).c_str(), prefix.c_str(), text.c_str());
  report_left_out(out, left_out);
}

// Writes `value` at every place of `at`, into JSON "written"; false when a write failed.
bool write(Detector& d, Output& out, const varkel_setting_t* s, Address at, double value)
{
  const std::string what = "put " + std::string(s->name);
  json_object* list = json_object_new_array();
  out.set("written", list);
  std::vector<LeftOut> ignored; // the read-back lists them
  bool ok = true;
  for (const Place& p : places(d, s, at, false, ignored)) {
    if (d.switched_off(out, p.module, p.chip, what) || !d.run(out, p.module, p.chip, what, [&] {
          return varkel_setting_put(d.handle(), s, p.module, p.chip, value);
        })) {
      ok = false;
      continue;
    }
    json_object_array_add(list, json_place(p.module, p.chip));
  }
  return ok;
}

} // namespace

void setup_names(Commands& c)
{
  CLI::App* cmd = c.add("names", "every readable name with its values");
  c.on(cmd, [](Detector&, Output& out) {
    json_object* list = json_object_new_array();
    for (int i = 0; i < varkel_settings_count(); ++i)
      json_object_array_add(list, json_text(varkel_setting_at(i)->name));
    out.set("names", list);
    out.text("%s", setting_names_help().c_str());
  });
}

void setup_get(Commands& c)
{
  struct State {
    std::string name;
    Address at;
  };
  auto st = std::make_shared<State>();
  CLI::App* cmd = c.add("get", "read a setting back");
  cmd->add_option("NAME", st->name, "readable name (varkel names lists them)")->required();
  address_options(cmd, st->at, "chip number 1..36 for chip settings (default: every working chip)");
  c.on(cmd, [st](Detector& d, Output& out) {
    const varkel_setting_t* s = find_setting(st->name, out);
    if (s == nullptr || !d.check(st->at, out) || !d.open(Reach::modules, false, out))
      return;
    out.set("name", json_text(s->name));
    read_back(d, out, s, st->at, "");
  });
}

void setup_put(Commands& c)
{
  struct State {
    std::string name, value;
    Address at;
  };
  auto st = std::make_shared<State>();
  CLI::App* cmd = c.add("put", "write a setting and show what the detector reads back");
  cmd->add_option("NAME", st->name, "readable name (varkel names lists them)")->required();
  cmd->add_option("VALUE", st->value, "a value name or a number")->required();
  address_options(cmd, st->at, "chip number 1..36 for chip settings (default: every working chip)");
  c.on(cmd, [st](Detector& d, Output& out) {
    const varkel_setting_t* s = find_setting(st->name, out);
    double value = 0;
    if (s == nullptr || !d.check(st->at, out))
      return;
    if (!s->writable)
      return out.refuse(st->name + " is read-only");
    if (varkel_setting_parse(s, st->value.c_str(), &value) != 0)
      return out.refuse(
          format("bad value '%s' for %s: %s", st->value.c_str(), s->name, *s->values ? s->values : "a number"));
    if (!d.open(Reach::modules, false, out))
      return;
    out.set("name", json_text(s->name));
    out.set("asked", json_value(s, value));
    // What the detector holds, which need not be what was asked (a time rounds to its unit).
    if (write(d, out, s, st->at, value))
      read_back(d, out, s, st->at, std::string(s->name) + " = ");
  });
}

} // namespace varkel::cli
