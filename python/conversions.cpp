#include "conversions.hpp"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string_view>

namespace varkel::python {

namespace {

Kind kind_of(const varkel_setting_t* s)
{
  switch (s->kind) {
  case VARKEL_SETTING_NAMED:
    return std::string_view(s->values) == "off on" ? Kind::boolean : Kind::named;
  case VARKEL_SETTING_REAL:
    return Kind::real;
  default:
    return Kind::integer;
  }
}

// The shortest text that reads back as `x`, for the table's parser.
std::string number_text(double x)
{
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, x).ptr;
  return {text, end};
}

} // namespace

const std::vector<Setting>& settings()
{
  static const std::vector<Setting> all = [] {
    std::vector<Setting> out;
    for (int i = 0; i < varkel_settings_count(); ++i) {
      const varkel_setting_t* s = varkel_setting_at(i);
      std::string name = s->name;
      if (name.starts_with("dac."))
        continue;
      std::replace(name.begin(), name.end(), '-', '_');
      out.push_back({s, name, kind_of(s)});
    }
    return out;
  }();
  return all;
}

const std::vector<std::string>& dac_names()
{
  static const std::vector<std::string> names = [] {
    std::vector<std::string> out;
    for (int i = 0; i < varkel_settings_count(); ++i)
      if (std::string_view name = varkel_setting_at(i)->name; name.starts_with("dac."))
        out.emplace_back(name.substr(4));
    // The table lists them by number; the numbers are what the DAC reads and scans send.
    if (out.size() != DAC_ENUM_END - 1 || out[DAC_GND - 1] != "GND" || out[DAC_DiscH - 1] != "DISCH")
      throw std::logic_error("the library's DAC names are not in DAC order");
    return out;
  }();
  return names;
}

double shortest(double cached)
{
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, static_cast<float>(cached)).ptr;
  double x = cached;
  std::from_chars(text, end, x);
  return x;
}

py::object to_python(const Setting& setting, double x)
{
  char name[64];
  switch (setting.kind) {
  case Kind::real:
    return py::float_(shortest(x));
  case Kind::boolean:
    return py::bool_(x != 0);
  case Kind::named:
    // A number the table has no name for is shown as it came.
    if (varkel_setting_format(setting.s, x, name, sizeof name) == 0)
      return py::str(name);
    [[fallthrough]];
  default:
    return py::int_(static_cast<long long>(x));
  }
}

double from_python(const varkel_setting_t* s, py::handle value)
{
  std::string text;
  if (py::isinstance<py::str>(value)) {
    text = value.cast<std::string>();
  } else {
    try {
      text = number_text(value.cast<double>());
    } catch (const py::cast_error&) {
      throw py::type_error(std::string(s->name) + " takes a number or a value name");
    }
  }
  double x = 0;
  if (varkel_setting_parse(s, text.c_str(), &x) != 0)
    throw py::value_error(py::str(value).cast<std::string>() + " is not a value of " + s->name + ": " + s->values);
  return x;
}

varkel_dac_t dac_number(py::handle dac)
{
  const auto& names = dac_names();
  if (py::isinstance<py::str>(dac)) {
    std::string name = dac.cast<std::string>();
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::toupper(c); });
    const auto at = std::find(names.begin(), names.end(), name);
    if (at == names.end())
      throw py::key_error("no DAC named " + dac.cast<std::string>());
    return static_cast<varkel_dac_t>(at - names.begin() + 1);
  }
  const int number = dac.cast<int>();
  if (number < 1 || number > static_cast<int>(names.size()))
    throw py::key_error("no DAC numbered " + std::to_string(number) + ": 1.." + std::to_string(names.size()));
  return static_cast<varkel_dac_t>(number);
}

const varkel_setting_t* dac_setting(py::handle dac)
{
  return varkel_setting_find(("dac." + dac_names()[dac_number(dac) - 1]).c_str());
}

} // namespace varkel::python
