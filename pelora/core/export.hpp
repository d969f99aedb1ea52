// PELORA_API marks what the shared library exports; everything else is built hidden.
#pragma once

#define PELORA_API __attribute__((visibility("default")))
