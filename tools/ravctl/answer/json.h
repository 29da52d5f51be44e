#pragma once

#include <nlohmann/json.hpp>

#include "ravctl/answer/json_name.h"
