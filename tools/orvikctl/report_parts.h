// The parts of a report, for the command `report`. Each function writes its files into the folder.
// It throws Failure, whose text says why the part cannot be had.
#pragma once

#include "arguments.h"
#include "report_folder.h"

/// status.json: the output of `orvikctl status --json`. Connects to the service for a moment.
void ReportStatus(ReportFolder& folder, const Settings& settings);

/// service.json: the configuration and the recovery actions of the service.
void ReportService(ReportFolder& folder);

/// versions.json: the versions of all our files.
void ReportVersions(ReportFolder& folder);

/// windows.json
void ReportWindows(ReportFolder& folder);

/// application.json: the desktop application that the service starts.
void ReportApplication(ReportFolder& folder);

/// log.txt, log.old.txt
void ReportLog(ReportFolder& folder);
void ReportOldLog(ReportFolder& folder);

/// dumps: the newest three, and dumps.txt with the reason of each.
void ReportDumps(ReportFolder& folder);

/// cameras.json: the interfaces of disks and CD-ROM drives that Windows knows, among which the
/// service finds its cameras, with their descriptors. Disturbs no program that uses one.
void ReportCameras(ReportFolder& folder);

/// events.xml: the events that the service control manager has logged about the service.
void ReportEvents(ReportFolder& folder);

/// leftovers.json: the names of partial files of `read` and `raw`, and of dumps that the crash
/// server has left.
void ReportLeftovers(ReportFolder& folder);
