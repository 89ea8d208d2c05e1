// The content type a stored file gets when its writer names none, chosen by
// the path's extension (compared in lower case). Pure functions.
#pragma once

#include <string>
#include <string_view>

namespace vostra::data {

// The full table of the filesystem backend (text, web, image, archive and
// data formats); "application/octet-stream" for anything else.
std::string detectContentType(std::string_view path);

// The shorter table of the memory and object-store backends: JSON, text,
// HTML, XML, PDF, PNG, JPEG and GIF only.
std::string detectBasicContentType(std::string_view path);

// False when `type` holds a control character (a line break above all): a
// stored type is sent back as a response header, where one would let a
// writer add headers of their own.
bool isValidContentType(std::string_view type);

}  // namespace vostra::data
