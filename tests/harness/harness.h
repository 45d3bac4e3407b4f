// Everything an end-to-end test needs to stand up readers and cards.
#pragma once

#include "harness/namespaces.h"
#include "harness/pcsc.h"
#include "harness/pcscd.h"
#include "harness/process.h"
#include "harness/vtoken.h"
