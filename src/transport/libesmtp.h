// libESMTP's own headers need these before them.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <sys/types.h>

#include <auth-client.h>
#include <libesmtp.h>
