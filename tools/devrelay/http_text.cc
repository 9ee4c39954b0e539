#include "tools/devrelay/http_text.h"

#include <cctype>
#include <cstdio>

namespace quorvel {
namespace devrelay {

std::string responseHead(unsigned status, std::string_view reason, const Fields& fields) {
  std::string head = "HTTP/1.1 " + std::to_string(status) + " ";
  head.append(reason);
  head += "\r\n";
  for (const auto& field : fields) {
    head += field.first;
    head += ": ";
    head += field.second;
    head += "\r\n";
  }
  head += "\r\n";
  return head;
}

std::string textResponse(unsigned status, std::string_view reason, const std::string& text, bool keepAlive,
                         bool headRequest) {
  Fields fields{{"Content-Type", "text/plain"}, {"Content-Length", std::to_string(text.size())}};
  if (!keepAlive) fields.emplace_back("Connection", "close");
  std::string response = responseHead(status, reason, fields);
  if (!headRequest) response += text;
  return response;
}

std::string_view reasonPhrase(unsigned status) {
  switch (status) {
    case 200: return "OK";
    case 201: return "Created";
    case 204: return "No Content";
    case 400: return "Bad Request";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 410: return "Gone";
    case 413: return "Payload Too Large";
    case 415: return "Unsupported Media Type";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    case 504: return "Gateway Timeout";
    default: return "Unknown";
  }
}

std::string linkValue(const std::string& url, std::string_view relation) {
  std::string value = "<" + url + ">; rel=\"";
  value.append(relation);
  value += "\"";
  return value;
}

std::string lowerCase(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return result;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
  }
  return true;
}

std::string hostOfAuthority(std::string_view authority) {
  if (!authority.empty() && authority[0] == '[') {
    const auto close = authority.find(']');
    return std::string(authority.substr(1, close == std::string_view::npos ? std::string_view::npos : close - 1));
  }
  const auto colon = authority.find(':');
  return std::string(authority.substr(0, colon));
}

std::string authorityHost(const std::string& host) {
  return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

std::string deviceKeyOfHost(std::string_view host) {
  const auto dot = host.find('.');
  if (dot == std::string_view::npos || dot == 0) return std::string();
  return lowerCase(host.substr(0, dot));
}

bool isValidKey(std::string_view key) {
  if (key.empty() || key.size() > 63) return false;
  for (char c : key) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') return false;
  }
  return true;
}

std::string chunkSizeLine(std::size_t size) {
  char text[24];
  std::snprintf(text, sizeof text, "%zx\r\n", size);
  return text;
}

}  // namespace devrelay
}  // namespace quorvel
