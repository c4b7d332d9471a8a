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

// Puts a question mark in the place of each control character, for text that users chose and that is printed:
// it can then neither end a line nor steer a terminal.
inline void mask_controls(char *text)
{
	for (; *text != '\0'; text++)
		if (static_cast<unsigned char>(*text) < ' ' || *text == 0x7f)
			*text = '?';
}

#endif
