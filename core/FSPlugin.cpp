#include "core/FSPlugin.h"

FSPlugin::~FSPlugin() = default;
FSPluginClass::~FSPluginClass() = default;
FSPluginAccounts::~FSPluginAccounts() = default;
