#define _GNU_SOURCE

#include "netnsaid.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

char const* const DEFAULT_NS = "default";

static _Thread_local char traceBuffer[512];

static int failed(char const* what, char const* name, int error) {
  char buffer[128];
  char const* const reason = strerror_r(error, buffer, sizeof buffer);
  snprintf(traceBuffer, sizeof traceBuffer, "%s %s: %s", what, name, reason);
  errno = error;
  return -1;
}

/// Whether `name` is a plain file name, so that no caller's text leads out of the directory.
static int isFileName(char const* name) {
  return name[0] != '\0' && strlen(name) <= NAME_MAX && strchr(name, '/') == NULL &&
         strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

int setnsByName(char const* name, int nsType) {
  char path[sizeof "/var/run/netns/" + NAME_MAX] = "/proc/1/ns/net";
  if (strcmp(name, DEFAULT_NS) != 0) {
    if (!isFileName(name)) return failed("not a name for a namespace:", name, EINVAL);
    snprintf(path, sizeof path, "/var/run/netns/%s", name);
  }
  int const fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return failed("cannot open", path, errno);
  int const result = setns(fd, nsType);
  int const error = errno;
  close(fd);
  return result == 0 ? 0 : failed("cannot enter", path, error);
}

char const* netnsGetTracebuffer(void) {
  return traceBuffer;
}
