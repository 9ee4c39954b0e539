#include "http/http_names.h"

namespace quorvel {

const HttpStatus HttpStatus::Ok{200, "OK"};
const HttpStatus HttpStatus::Created{201, "Created"};
const HttpStatus HttpStatus::Accepted{202, "Accepted"};
const HttpStatus HttpStatus::BadRequest{400, "Bad Request"};
const HttpStatus HttpStatus::Unauthorized{401, "Unauthorized"};
const HttpStatus HttpStatus::Forbidden{403, "Forbidden"};
const HttpStatus HttpStatus::NotFound{404, "Not Found"};
const HttpStatus HttpStatus::MethodNotAllowed{405, "Method Not Allowed"};
const HttpStatus HttpStatus::Conflict{409, "Conflict"};
const HttpStatus HttpStatus::InternalServerError{500, "Internal Server Error"};
const HttpStatus HttpStatus::BadGateway{502, "Bad Gateway"};

const HttpStatus* HttpStatus::find(uint32_t code) {
  static const HttpStatus* const table[] = {&Ok,        &Created,  &Accepted, &BadRequest,          &Unauthorized, &Forbidden,
                                            &NotFound,  &MethodNotAllowed,    &Conflict,     &InternalServerError,
                                            &BadGateway};
  for (const HttpStatus* entry : table) {
    if (entry->code == code) return entry;
  }
  return nullptr;
}

}  // namespace quorvel
