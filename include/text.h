// text.h: text in fixed-size fields.
#ifndef TEXT_H
#define TEXT_H

#include <cstddef>
#include <cstring>

// Copies text, cut to the field, terminated; the rest of the field becomes zero, so that nothing of what was
// there before reaches whoever is sent the record.
template <std::size_t N> void copy_text(char (&field)[N], const char *text)
{
	const std::size_t length = strnlen(text, N - 1);
	std::memcpy(field, text, length);
	std::memset(field + length, 0, N - length);
}

#endif
