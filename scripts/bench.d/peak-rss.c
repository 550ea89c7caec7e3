/* Runs a command and records its wall time, peak resident memory and exit
 * status: peak-rss RESULT_FILE COMMAND [ARG...] writes
 * "<seconds> <peak RSS in KiB> <exit status>" to RESULT_FILE. */
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char **argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: peak-rss RESULT_FILE COMMAND [ARG...]\n");
    return 2;
  }
  struct timespec t0, t1;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  const pid_t pid = fork();
  if (pid < 0) {
    perror("fork");
    return 2;
  }
  if (pid == 0) {
    execvp(argv[2], argv + 2);
    perror(argv[2]);
    _exit(127);
  }
  int status = 0;
  struct rusage usage;
  if (wait4(pid, &status, 0, &usage) != pid) {
    perror("wait4");
    return 2;
  }
  clock_gettime(CLOCK_MONOTONIC, &t1);
  const double seconds = (double)(t1.tv_sec - t0.tv_sec) + (double)(t1.tv_nsec - t0.tv_nsec) / 1e9;
  FILE *out = fopen(argv[1], "w");
  if (out == NULL) {
    perror(argv[1]);
    return 2;
  }
  fprintf(out, "%.6f %ld %d\n", seconds, usage.ru_maxrss, WIFEXITED(status) ? WEXITSTATUS(status) : 128);
  fclose(out);
  return 0;
}
