// Start-up of the filter: command line, translations, settings, template and fonts.
#pragma once

class QCoreApplication;
class QString;

// Installs the translators of the system locale: Qt's own messages and the
// program's. English is the language of the texts themselves, so the C
// locale needs none and nothing is looked for; a locale without a
// translation file changes nothing either.
void loadTranslations(QCoreApplication& application);

// Runs the whole program and returns its exit status; main() only calls this.
int quilletMain(int argc, char* argv[]);
