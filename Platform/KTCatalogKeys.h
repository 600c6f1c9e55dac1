// Keys of the upstream catalog format, under the names the update-client library gives them.
// Used wherever catalogs and product entries are read or written. Constants only.
#pragma once

namespace ondrel {

inline constexpr const char* KTCatalogProductsDictKey = "Products";
inline constexpr const char* KTCatalogIndexDateKey = "IndexDate";
inline constexpr const char* KTCatalogVantorPostURLKey = "VantorPostURL";
inline constexpr const char* KTCatalogProductPostDateKey = "PostDate";
inline constexpr const char* KTCatalogProductPackagesKey = "Packages";
inline constexpr const char* KTCatalogProductDistributionsDictKey = "Distributions";
inline constexpr const char* KTCatalogPackageURLStringKey = "URL";
inline constexpr const char* KTCatalogPackageSizeKey = "Size";
inline constexpr const char* KTCatalogPackageMetadataURLStringKey = "MetadataURL";

}  // namespace ondrel
