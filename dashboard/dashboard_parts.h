// The fixed pieces of the dashboard pages (dashboard_pages.cpp): each
// page's main section and the footer's link rewriting. Internal to the
// dashboard library.
#pragma once

namespace vostra::data {

extern const char* const kOverviewMain;
extern const char* const kDatabasesMain;
extern const char* const kStorageMain;
extern const char* const kVectorMain;
extern const char* const kNfsMain;
extern const char* const kScienceMain;
extern const char* const kAgentsMain;
extern const char* const kDevToolBoxMain;
extern const char* const kFooterScript;

}  // namespace vostra::data
