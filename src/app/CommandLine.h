#pragma once

#include <QStringList>

// The subcommands of the `ondril` executable that are tools of their own. Each takes the
// arguments after its name, prints to stdout/stderr and returns the process exit status.
namespace DefaultsCommand {
int run(const QStringList& arguments);
}

namespace DevicesCommand {
int run(const QStringList& arguments);
}
