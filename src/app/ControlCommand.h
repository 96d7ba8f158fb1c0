#pragma once

#include <QString>
#include <QStringList>

// The command line that talks to the running instance: `ondril URL...`, and the subcommands
// status, groups, apps and configs. What writes is sent as the matching "ondril:" URL, so that
// there is one code path. Exit status: 0 done, 1 no instance reached, 2 usage.
namespace ControlCommand {
bool isControlSubcommand(const QString& word);
bool looksLikeURL(const QString& argument); // has a scheme: "name:..."
int openURLs(const QStringList& arguments);
int run(const QString& subcommand, const QStringList& arguments);
} // namespace ControlCommand
