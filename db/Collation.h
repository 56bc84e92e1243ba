#pragma once
// UTF-8 collation for SQLite users of the library. Nothing inside the
// library registers it with a connection.

extern "C" {
int collation_utf8(void* context, int len1, const void* text1, int len2, const void* text2);
void* tracker_collation_init(void);
void tracker_collation_shutdown(void* handle);
}
