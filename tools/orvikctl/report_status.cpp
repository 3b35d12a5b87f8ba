#include "report_parts.h"
#include "status.h"

void ReportStatus(ReportFolder& folder, const Settings& settings) {
    folder.Write("status.json", FindStatus(settings).json);
}
