// varkel-demo: creates a handle for each detector model and prints its geometry.
#include <cstdio>

#include "varkel.h"

int main()
{
  const varkel_detector_model_t models[] = {kinlet, varkelLite, varkelTrio, varkelQuad};
  int status = 0;
  for (varkel_detector_model_t model : models) {
    varkel_t* v = varkel_new(model);
    if (v == nullptr || v->sample_frame == nullptr) {
      std::fprintf(stderr, "cannot create a handle for model %d\n", model);
      status = 1;
      continue;
    }
    std::printf("  modules %u, boards per module %u, chips per board %u, chips per module %u, "
                "frame %u pixels (%u x 256 x 256)\n\n",
                v->max_num_modules, v->max_num_boards, v->max_num_chips, v->num_all_chips, v->frame_size,
                v->frame_size / 65536);
    varkel_delete(v);
  }
  return status;
}
