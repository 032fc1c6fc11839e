// config: the library's configuration snapshots, saved, compared and applied.
#include <memory>

#include "commands.hpp"
#include "common/text.hpp"
#include "snapshot.h"

namespace varkel::cli {

using tools::format;

namespace {

struct Request {
  std::string action; // save, apply or diff
  std::string file;
  std::string against; // diff: a second file instead of the detector
};

struct Report : varkel_snapshot_report_t {
  Report() : varkel_snapshot_report_t{} {}
  ~Report() { varkel_snapshot_report_free(this); }
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;
};

// An entry's value as its setting shows it; snapshot-only entries as numbers.
std::string entry_value(const varkel_snapshot_entry_t& e, double value)
{
  const varkel_setting_t* s = e.name != nullptr ? varkel_setting_find(e.name) : nullptr;
  return s != nullptr ? shown(s, value) : format("%g", value);
}

std::string place_text(int module, int chip)
{
  if (module == 0)
    return "detector";
  return chip > 0 ? format("module %d chip %d", module, chip) : format("module %d", module);
}

// The entries as JSON and, for a person, one line each.
void list_entries(Output& out, const Report& r, const char* wanted, const char* found)
{
  json_object* list = json_object_new_array();
  out.set("entries", list);
  for (std::size_t i = 0; i < r.count && r.entries != nullptr; ++i) {
    const varkel_snapshot_entry_t& e = r.entries[i];
    const char* name = e.name != nullptr ? e.name : "?";
    json_object* o = json_place(e.module, e.chip);
    json_object_object_add(o, "name", json_text(name));
    json_object_object_add(o, wanted, json_text(entry_value(e, e.wanted)));
    json_object_object_add(o, found, json_text(entry_value(e, e.found)));
    json_object_object_add(o, "written", json_object_new_boolean(e.written));
    json_object_object_add(o, "verified", json_object_new_boolean(e.verified));
    json_object_array_add(list, o);
    out.text("  %-18s %-22s %s %s, %s %s%s\n", place_text(e.module, e.chip).c_str(), name, wanted,
             entry_value(e, e.wanted).c_str(), found, entry_value(e, e.found).c_str(),
             e.written ? (e.verified ? ": written, verified" : ": written, NOT verified") : "");
  }
}

// What the call did, for a person, and its entries; an apply that stopped still
// says what it wrote.
void summarize(Output& out, const Request& q, const Report& r, int rc)
{
  const bool two_files = !q.against.empty();
  if (rc == 0 && q.action == "save")
    out.text("saved to %s (%zu commands)\n", q.file.c_str(), r.commands);
  else if (rc == 0 && q.action == "diff")
    out.text("%zu difference(s) between %s and %s\n", r.count, q.file.c_str(),
             two_files ? q.against.c_str() : "the detector");
  else if (rc == 0 && q.action == "apply" && r.count == 0)
    out.text("%s: nothing differed, nothing written (%zu read-back commands)\n", q.file.c_str(), r.commands);
  else if (q.action == "apply" && r.count > 0)
    out.text("%s applied (%zu commands):\n", q.file.c_str(), r.commands);
  if (q.action != "save")
    list_entries(out, r, "snapshot", two_files ? "other" : q.action == "apply" ? "read-back" : "detector");
}

// An apply's entries that did not read back as written, each reported; how many.
std::size_t report_unverified(Output& out, const Request& q, const Report& r)
{
  std::size_t unverified = 0;
  for (std::size_t i = 0; q.action == "apply" && i < r.count && r.entries != nullptr; ++i)
    if (r.entries[i].written && !r.entries[i].verified) {
      out.fail(r.entries[i].module, r.entries[i].chip, format("%s does not read back as written", r.entries[i].name));
      ++unverified;
    }
  return unverified;
}

// A refused file names itself; the refusal of a two-file diff does not say which
// file it is about, so the first is checked alone.
void report_file(Output& out, const Request& q, const Report& r, int rc)
{
  std::string refused = q.file;
  Report alone;
  if (!q.against.empty() && varkel_snapshot_diff(nullptr, q.file.c_str(), q.file.c_str(), &alone) == 0)
    refused = q.against;
  out.fail(0, 0, rc, format("%s: %s", refused.c_str(), r.message));
}

void run_config(Detector& d, Output& out, const Request& q)
{
  out.set("action", json_text(q.action));
  out.set("file", json_text(q.file));
  if (!q.against.empty() && q.action != "diff")
    return out.refuse("--against is for config diff");
  // Two files are compared without a detector.
  if (q.against.empty() && !d.open(Reach::modules, false, out))
    return;
  Report r;
  const uint64_t before = q.against.empty() ? varkel_failure_count(d.handle()) : 0;
  int rc = 0;
  if (q.action == "save")
    rc = varkel_snapshot_save(d.handle(), q.file.c_str(), &r);
  else if (q.action == "apply")
    rc = varkel_snapshot_apply(d.handle(), q.file.c_str(), &r);
  else
    rc = varkel_snapshot_diff(q.against.empty() ? d.handle() : nullptr, q.file.c_str(),
                              q.against.empty() ? nullptr : q.against.c_str(), &r);
  out.set("commands", json_object_new_int64(static_cast<int64_t>(r.commands)));
  if (r.line > 0)
    out.set("line", json_object_new_int(r.line));
  summarize(out, q, r, rc);
  if (report_unverified(out, q, r) > 0 && rc == VARKEL_SNAPSHOT_UNVERIFIED)
    return;
  if (r.message[0] != '\0' && rc != 0)
    report_file(out, q, r, rc);
  else if (q.against.empty())
    d.verdict(out, 0, 0, q.action + " " + q.file, rc, before);
  else if (rc != 0)
    out.fail(0, 0, rc, coded("diff " + q.file, rc));
}

} // namespace

void setup_config(Commands& c)
{
  auto q = std::make_shared<Request>();
  CLI::App* cmd = c.add("config", "configuration snapshots: save, apply or diff a file");
  cmd->add_option("ACTION", q->action, "save, apply or diff")
      ->required()
      ->check(CLI::IsMember({"save", "apply", "diff"}));
  cmd->add_option("FILE", q->file, "the snapshot")->required();
  cmd->add_option("--against", q->against, "diff: a second snapshot instead of the detector");
  c.on(cmd, [q](Detector& d, Output& out) { run_config(d, out, *q); });
}

} // namespace varkel::cli
