#pragma once

#include <string>

/// The query for events that the service control manager has logged about a service: its start
/// failed (7000), or took too long (7009), or its process ended unexpectedly (7031, 7034). Most of
/// them have the display name, some the name.
std::wstring EventQuery(const std::wstring& serviceName, const std::wstring& displayName);
