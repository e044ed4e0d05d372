// Diagnostics upload: the controller's get.diagnostics gathers the switch's
// support data and the device's own dump into one archive and uploads it to
// the link the command names.
#pragma once

#include <jansson.h>

constexpr char DIAGS_SUPPORT_FILE[] = "/tmp/platform-tech-support.txt";
// A macro: pasted into the gzip command line.
#define DIAGS_TAR "/tmp/diagnostics.tar"
constexpr char DIAGS_ARCHIVE[] = "/tmp/diagnostics.tar.gz";

void diags_init(void);
void cmd_get_diagnostics(char *command, json_t *js_command, char *resp_href);
