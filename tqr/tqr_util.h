// The field syntax of TQR control lines: "CFG GPO 5 SRCA=10.0.0.9:94/2, NAME="Studio 1"".
//
// A line is a row of fields, separated by blanks and commas. A field is tag=value, tag:value or a
// bare word. A double quote switches quoting on and off anywhere in a field; inside quotes blanks
// and commas belong to the field. A backslash takes the character behind it as it is. Quotes and
// backslashes are dropped when a value is copied out; the line itself is never changed.
//
// A field pointer points at the first character of a field, a value pointer at the first character
// after a tag's '=' or ':'. All texts are NUL-terminated. No function keeps state; none allocates
// but tqr_valdup. Numbers are 32 bits wide on every host and saturate at the limits of 32 bits.
#pragma once

// Moves p past the field that it points into and past the separators behind it: to the next field
// or to the end of the text.
void tqr_nextval(const char*& p);

// Copies the field at src, quotes and backslashes included, to dst and appends a blank and a NUL.
// Leaves src where the field ended and dst on the NUL, so that the next copy overwrites it. dst
// must have room for the field and two more bytes.
void tqr_copyval(const char*& src, char*& dst);

// Copies the value at src, without quotes and escapes, into dst: at most size - 1 characters and a
// NUL. A null src gives an empty text. Does nothing when dst is null or size is below 1.
void tqr_copyval(char* dst, const char* src, int size);

// The number of characters that the value has without quotes and escapes; 0 for null. CR and LF end
// the value even inside quotes.
int tqr_vallen(const char* value);

// Copies src into dst of size bytes with a backslash before every double quote. What does not fit
// is cut, never between a quote and its backslash. Returns the number of characters before the NUL;
// 0, with nothing written, when dst is null or size is below 1.
int tqr_escape(char* dst, int size, const char* src);

// The value of the first field whose tag is key, or null. Tags are compared with their case; the
// key must be the whole tag. Both arguments may be null.
const char* tqr_findval(const char* line, const char* key);

// The first field that begins with the len characters at tag followed by '=' or ':', or null.
const char* tqr_findtag(const char* line, const char* tag, int len);

// The value as a number, in base 0 (0x10, 020 and 16 are one number), after an optional double
// quote; 0 for null or when no number stands there.
long tqr_vall(const char* value);

// A copy of the value without quotes and escapes, to be released with free(); null when the value
// is empty or memory is short.
char* tqr_valdup(const char* value);

// Reads "tqs://N" (a multicast group 239.192.x.y), "tqs://a.b.c.d[:port]" or either without scheme.
// Returns the address in network byte order, 0 when the text is neither. Stores the port (host byte
// order, 5004 when none is given) unless port is null or the text is neither.
unsigned long tq_url2ip(const char* url, unsigned short* port);

// Whether tqr_alter_str may put this field in place of an old one: 1, or 0 for an "HWID:" field
// whose number is not within 15 to 32767.
int tqr_check_range(const char* field);

// Writes to out the fields of base, each replaced by the field of changes with the same tag if
// there is one and tqr_check_range allows it, then the fields of changes that are still missing.
// With allowed (a list that ends with null) only fields are added that one of its entries begins
// with. base and changes may be null. Returns the position of the NUL that ends out.
//
// out has no size: a field of changes may replace several fields of base. A buffer of
// (strlen(base) + 2) * (strlen(changes) + 2) bytes is enough for any two texts.
char* tqr_alter_str(char* out, const char* base, const char* changes, const char** allowed);

// strtol and strtoul as they are on a 32-bit host: the result saturates at the limits of 32 bits
// (and a negative number wraps in 32 bits in the unsigned one). Base 0 knows decimal, octal and
// hexadecimal numbers. end, when not null, receives the position behind the number, text itself
// when there is none.
long tqr_strtol(const char* text, const char** end, int base);
unsigned long tqr_strtoul(const char* text, const char** end, int base);
