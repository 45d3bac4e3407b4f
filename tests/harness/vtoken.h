#pragma once
#include "harness/harness.h"
