// Configuration snapshots.
#include "snapshot.h"

int varkel_snapshot_save(varkel_t*, const char*, varkel_snapshot_report_t*) { return -1; }
int varkel_snapshot_diff(varkel_t*, const char*, const char*, varkel_snapshot_report_t*) { return -1; }
int varkel_snapshot_apply(varkel_t*, const char*, varkel_snapshot_report_t*) { return -1; }
void varkel_snapshot_report_free(varkel_snapshot_report_t*) {}
