#pragma once

// What the process table's body needs of Darwin's header, with the layout that it insists on.

#include <sys/types.h>

#define MAXCOMLEN 16

enum { CTL_KERN = 1, KERN_PROC = 14, KERN_PROC_ALL = 0 };

struct kinfo_proc {  // NOLINT(readability-identifier-naming)
  struct {
    char before[40];
    pid_t p_pid;
    char between[199];
    char p_comm[MAXCOMLEN + 1];
  } kp_proc;
  char kp_eproc[388];
};

extern "C" int sysctl(const int* name, unsigned length, void* old, size_t* oldSize, void* fresh,
                      size_t freshSize);
