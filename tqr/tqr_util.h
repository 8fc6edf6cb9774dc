// The field syntax of TQR control lines: "CFG GPO 5 SRCA=10.0.0.9:94/2, NAME="Studio 1"".
//
// A line consists of fields, separated by blanks and commas. A field is tag=value, tag:value or a
// bare word. A double quote starts or ends quoting anywhere in a field; inside quotes, blanks and
// commas belong to the field. A backslash takes the next character literally. Copying a value drops
// quotes and backslashes; the line itself is never changed.
//
// A field pointer points at the first character of a field, a value pointer at the first character
// after a tag's '=' or ':'. All texts are NUL-terminated. No function keeps state; only tqr_valdup
// allocates. Numbers are 32 bits wide on every host and saturate at the limits of 32 bits.
#pragma once

// Moves p past the field it points into and past the separators after it: to the next field or to
// the end of the text.
void tqr_nextval(const char*& p);

// Copies the field at src, including quotes and backslashes, to dst and appends a blank and a NUL.
// Leaves src at the field's end and dst at the NUL, which the next copy overwrites. dst must have
// room for the field and two more bytes.
void tqr_copyval(const char*& src, char*& dst);

// Copies the value at src, without quotes and escapes, into dst: at most size - 1 characters and a
// NUL. A null src gives an empty text. Does nothing if dst is null or size is below 1.
void tqr_copyval(char* dst, const char* src, int size);

// The length of the value without quotes and escapes; 0 for null. CR and LF end the value even
// inside quotes.
int tqr_vallen(const char* value);

// Copies src into dst of size bytes with a backslash before every double quote. Truncates what does
// not fit, but not between a backslash and its quote. Returns the number of characters before the
// NUL; 0, with nothing written, if dst is null or size is below 1.
int tqr_escape(char* dst, int size, const char* src);

// The value of the first field whose tag is key, or null. The comparison is case sensitive and
// covers the whole tag. Both arguments may be null.
const char* tqr_findval(const char* line, const char* key);

// The first field that begins with the len characters at tag followed by '=' or ':', or null.
const char* tqr_findtag(const char* line, const char* tag, int len);

// The value as a number, in base 0 (0x10, 020 and 16 are equal), after an optional double quote; 0
// for null or without a number.
long tqr_vall(const char* value);

// A copy of the value without quotes and escapes, to be released with free(); null if the value is
// empty or memory is short.
char* tqr_valdup(const char* value);

// Reads "tqs://N" (a multicast group 239.192.x.y), "tqs://a.b.c.d[:port]" or either without scheme.
// Returns the address in network byte order, 0 if the text is neither. Stores the port (host byte
// order, by default 5004) unless port is null or the text is neither.
unsigned long tq_url2ip(const char* url, unsigned short* port);

// Whether tqr_alter_str may replace an old field with this one: 1, or 0 for an "HWID:" field whose
// number is not within 15 to 32767.
int tqr_check_range(const char* field);

// Writes to out the fields of base, each replaced by the field of changes with the same tag if
// there is one and tqr_check_range allows it, then the fields of changes that are still missing.
// With allowed (a list that ends with null), a field is added only if an entry begins with its tag.
// base and changes may be null. Returns the position of the NUL that ends out.
//
// out has no size: a field of changes may replace several fields of base. A buffer of
// (strlen(base) + 2) * (strlen(changes) + 2) bytes is enough for any two texts.
char* tqr_alter_str(char* out, const char* base, const char* changes, const char** allowed);

// strtol and strtoul as on a 32-bit host: the result saturates at the limits of 32 bits (and a
// negative number wraps in 32 bits in tqr_strtoul). Base 0 accepts decimal, octal and hexadecimal
// numbers. end, if not null, receives the position after the number, or text if there is none.
long tqr_strtol(const char* text, const char** end, int base);
unsigned long tqr_strtoul(const char* text, const char** end, int base);
