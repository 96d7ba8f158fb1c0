#pragma once

#include <QStringList>

#include <optional>

// The subcommands of the `ondril` executable that are tools of their own. Each takes the
// arguments after its name, prints to stdout/stderr and returns the process exit status.
namespace DefaultsCommand {
int run(const QStringList& arguments);
}

namespace DevicesCommand {
// Before the sound server is contacted: prints help or a usage error and gives the exit status,
// or nothing when the arguments are fine.
std::optional<int> checkArguments(const QStringList& arguments);
int run(const QStringList& arguments);
} // namespace DevicesCommand
