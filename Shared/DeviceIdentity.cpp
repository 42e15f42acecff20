#include "Shared/DeviceIdentity.h"

#include "Platform/Http/Url.h"
#include "Platform/Json/Json.h"
#include "Platform/SmallFile.h"

namespace DeviceIdentity {

std::optional<Resolved> resolve(const std::string& process, const std::string& file) {
  const auto content = SmallFile::read(file);
  const auto identity = content ? Json::parseObject(*content) : std::nullopt;
  if (!identity) return std::nullopt;
  const std::string& token = identity->text("device_token");
  const std::string& tenant = identity->text("tenant_slug");
  const std::string& apiUrl = identity->text("api_url");
  if (token.empty() || tenant.empty()) return std::nullopt;
  const auto url = Url::withPathAndQuery(apiUrl, "api/obrisk/v1/endpoint/agent-config/", "process", process);
  if (!url) return std::nullopt;

  const Http::Request request{"GET", *url, {{"X-Quib-Device", token}, {"X-Quib-Tenant", tenant}}, ""};
  const auto response = Http::exchange(request, timeout);
  if (response.status != 200) return std::nullopt;
  const auto answer = Json::parseObject(response.body);
  if (!answer || answer->text("upload_api_key").empty()) return std::nullopt;
  return Resolved{answer->optionalText("api_url").value_or(apiUrl), answer->text("upload_api_key"),
                  answer->text("agent_slug"), answer->text("agent_type")};
}

}  // namespace DeviceIdentity
