#include "http/web_request.h"

namespace quorvel {

void sendSimpleResponse(WebRequest& request, const HttpStatus& status, StringSection body, StringSection contentType,
                        bool cacheable) {
  const std::shared_ptr<WebResponse> response = request.createResponse(status);
  if (!response) return;
  MessageHeaders& headers = response->headers();
  if (!body.empty()) headers.addField(HttpHeader::ContentType, contentType.empty() ? "text/plain" : contentType);
  if (!cacheable) headers.addNoCacheFields();
  response->send(body.data(), body.size());
}

}  // namespace quorvel
