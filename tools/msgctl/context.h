// What every command of msgctl uses.
#pragma once

#include <cstdint>
#include <string>

#include "catalogue/type_files.h"
#include "common/command_line.h"
#include "common/exit_status.h"

namespace msgctl {

using servers::ExitStatus;
using servers::Failure;

struct Context {
  bool json = false;
  uint32_t timeout_ms = 5000;
  std::string as;  // the name under which msgctl registers; empty: "msgctl" and its process
  catalogue::Catalogue catalogue;
  // The exit status of the process when the command returns.
  ExitStatus status = ExitStatus::kDone;
};

// Each adds the commands of one source file. `context` must outlive the command line.
void add_catalogue_commands(servers::CommandLine *line, Context *context);
void add_call_commands(servers::CommandLine *line, Context *context);
void add_client_commands(servers::CommandLine *line, Context *context);
void add_completion_commands(servers::CommandLine *line, Context *context);
void add_doctor_command(servers::CommandLine *line, Context *context);
void add_event_commands(servers::CommandLine *line, Context *context);
void add_notify_command(servers::CommandLine *line, Context *context);
void add_ping_command(servers::CommandLine *line, Context *context);
void add_policy_command(servers::CommandLine *line, Context *context);
void add_restful_commands(servers::CommandLine *line, Context *context);
void add_serve_command(servers::CommandLine *line, Context *context);
void add_server_commands(servers::CommandLine *line, Context *context);
void add_wait_command(servers::CommandLine *line, Context *context);
// Commands on recorded traffic.
void add_monitor_command(servers::CommandLine *line, Context *context);
void add_capture_command(servers::CommandLine *line, Context *context);
void add_latency_command(servers::CommandLine *line, Context *context);
void add_top_command(servers::CommandLine *line, Context *context);
void add_waits_command(servers::CommandLine *line, Context *context);
void add_diagram_command(servers::CommandLine *line, Context *context);
void add_postmortem_command(servers::CommandLine *line, Context *context);
void add_dissector_command(servers::CommandLine *line, Context *context);
void add_replay_commands(servers::CommandLine *line, Context *context);

// The options that every command has.
void add_common_options(servers::Command *command, Context *context);

}  // namespace msgctl
