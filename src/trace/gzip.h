#pragma once

// Replaces the file by path + ".gz" with the machine's gzip, in a child that inherits nothing but the environment, and
// waits for its end. False when gzip is missing or says that it failed; the file then stays. Never traces.
bool CompressWithGzip(const char* path);
