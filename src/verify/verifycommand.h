// quillet-verify: checks the page codes that quillet prints, and makes keys.
#pragma once

// Exit status of quillet-verify.
enum VerifyStatus {
    VerifyAllAuthentic = 0, // every code is authentic, or a key was made
    VerifyNotAuthentic = 1, // a code is not authentic, or no key could be read or made
    VerifyUsageError = 2,   // the command line is wrong
};

// Runs the whole program and returns its exit status; main() only calls this.
int verifyMain(int argc, char* argv[]);
