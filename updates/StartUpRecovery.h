#pragma once

// Run at start-up, once the application object exists and before anything reads the bundle:
// finishes or undoes an update swap that a crash cut short. When this copy was started from
// a bundle the swap had moved aside, the process starts again from the installed bundle with
// the same arguments (it does not return then).
void recoverBundleAtStartUp(char *argv[]);
