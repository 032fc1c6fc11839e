// The chips of a model and the working chips of a module, for callers of our layer.
#include "internal/geometry.hpp"
#include "workflow.h"

using namespace varkel::detail;

int varkel_chip_on_model(const varkel_t* varkel, int chip) { return chip_on_model(varkel, chip) ? 1 : 0; }

int varkel_working_chips(const varkel_t* varkel, int module, int* chips, int capacity)
{
  if (module < 1 || module > varkel->max_num_modules)
    return -7;
  int count = 0;
  for_each_working_chip(varkel, module, [&](int chip) {
    if (chips != nullptr && count < capacity)
      chips[count] = chip;
    ++count;
  });
  return count;
}
