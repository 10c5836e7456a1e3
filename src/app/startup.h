// Start-up of the filter: command line, translations, settings, template and fonts.
#pragma once

class QCoreApplication;
class QString;

// Installs a translator for the system locale from "<baseName>_<locale>" in
// the directory; nothing happens when there is none.
void loadTranslation(QCoreApplication& application, const QString& baseName, const QString& directory);

// Runs the whole program and returns its exit status; main() only calls this.
int quilletMain(int argc, char* argv[]);
