#include "varkel.h"

// Process-wide: only one acquisition per process is timed at a time.
volatile sig_atomic_t start_polling = 0;
int initial_exposure_counter = 0;
