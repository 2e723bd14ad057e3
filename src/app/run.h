#ifndef KERROW_APP_RUN_H_
#define KERROW_APP_RUN_H_

#include "common/options.h"

namespace kerrow {

// The engine proper: builds the adapters, announces readiness, then decodes one
// input file or runs the live session. Returns the process exit status.
int Run(const Options& options);

}  // namespace kerrow

#endif  // KERROW_APP_RUN_H_
