#include "error_report.h"

#include "refusal.h"
#include "streams.h"

namespace {

const char* KindOf(const Failure& failure) {
    switch (failure.Code()) {
        case ExitCode::kUsage:
            return "usage";
        case ExitCode::kCancelled:
            return "cancelled";
        case ExitCode::kNoSuchCamera:
            return "no such camera";
        case ExitCode::kTimedOut:
            return "timed out";
        case ExitCode::kRefused:
            return "refused";
        case ExitCode::kTransport:
            return "bad answer";
        case ExitCode::kCameraGone:
            return "camera gone";
        default:
            return failure.SystemCode() != 0 ? "system error" : "failure";
    }
}

Json JsonOf(const SenseData& data) {
    Json json;
    if (data.sense) {
        json["key"] = data.sense->key;
        json["code"] = data.sense->code;
        json["qualifier"] = data.sense->qualifier;
        json["deferred"] = data.sense->deferred;
        json["text"] = data.sense->text;
    }
    json["data"] = Hex(data.bytes);
    return json;
}

ErrorDescription Describe(const std::exception& exception) {
    if (const auto* const error = dynamic_cast<const orvik::Error*>(&exception))
        return ErrorOf(*error);
    ErrorDescription description{"failure", exception.what(), 0, ExitCode::kFailure, {}};
    if (const auto* const failure = dynamic_cast<const Failure*>(&exception)) {
        description.kind = KindOf(*failure);
        description.systemCode = failure->SystemCode();
        description.exitCode = failure->Code();
    }
    const auto* const refusal = dynamic_cast<const Refusal*>(&exception);
    if (refusal != nullptr && refusal->Sense())
        description.sense = JsonOf(*refusal->Sense());
    return description;
}

}  // namespace

ErrorDescription ErrorOf(const orvik::Error& error) {
    std::string text = error.what();
    if (error.Kind() == orvik::ErrorKind::kWrongServer)
        text += ". If that process is OrvikService in a console, add --no-server-check";
    return {std::string(orvik::ToString(error.Kind())),
            text,
            error.SystemCode(),
            ExitCodeOf(error.Kind()),
            {}};
}

Json JsonOf(const ErrorDescription& error) {
    Json json;
    json["kind"] = error.kind;
    json["text"] = error.text;
    json["system_code"] = error.systemCode;
    json["exit_code"] = static_cast<int>(error.exitCode);
    if (!error.sense.is_null())
        json["sense"] = error.sense;
    return json;
}

ExitCode ReportError(const std::exception& exception, bool json, const std::string& usageHint) {
    const ErrorDescription error = Describe(exception);
    if (json) {
        Json object = NewJson();
        object["error"] = JsonOf(error);
        SayJson(object);
        return error.exitCode;
    }
    Say("orvikctl: error: " + Printable(error.text) + "\n");
    if (dynamic_cast<const UsageError*>(&exception) != nullptr)
        Say(usageHint + "\n");
    return error.exitCode;
}
