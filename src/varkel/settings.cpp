// Every setting of the library by a readable name.
#include "settings.h"

int varkel_settings_count(void) { return 0; }
const varkel_setting_t* varkel_setting_at(int) { return nullptr; }
const varkel_setting_t* varkel_setting_find(const char*) { return nullptr; }
int varkel_setting_parse(const varkel_setting_t*, const char*, double*) { return -1; }
int varkel_setting_format(const varkel_setting_t*, double, char*, size_t) { return -1; }
int varkel_setting_get(varkel_t*, const varkel_setting_t*, int, int, double*) { return -1; }
int varkel_setting_put(varkel_t*, const varkel_setting_t*, int, int, double) { return -1; }
int varkel_set_timeouts(varkel_t*, double, double) { return -1; }
int varkel_attach(varkel_t*, const char* const[], const uint16_t[]) { return -1; }
