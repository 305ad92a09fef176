// Process-wide state of the supervisor and the worker.
#include "wifi_manager.h"

bool g_foreground_flag = false;
volatile pid_t g_child_pid = 0;
std::atomic<bool> g_program_exist{false};
int g_ping_pipe_fd[2] = {-1, -1};
