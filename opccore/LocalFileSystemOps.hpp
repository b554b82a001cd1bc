#pragma once

#include <opccore/FileSystemOps.hpp>

namespace opc {

/// The file services on the local disk, through POSIX calls; see `FileSystemOps` for what each promises.
class OPCCORE_EXPORT LocalFileSystemOps : public FileSystemOps {
public:
    LocalFileSystemOps() = default;
    LocalFileSystemOps(LocalFileSystemOps const&) = default;
    LocalFileSystemOps& operator=(LocalFileSystemOps const&) = default;
    ~LocalFileSystemOps() override;

    std::u16string appendPath(std::u16string const& folder, std::u16string const& name) const override;
    std::u16string getFilename(std::u16string const& path) const override;
    std::u16string getParentPath(std::u16string const& path) const override;
    std::u16string getTempName(std::u16string const& prefix) const override;
    std::u16string normalizePath(std::u16string const& path) const override;

    bool exists(std::u16string const& path) const override;
    bool isFile(std::u16string const& path) const override;

    void createFolders(std::u16string const& path) const override;
    void createFolders(std::u16string const& path, boost::system::error_code& code) const override;
    void setPermissions(std::u16string const& path, Perms::Perms_tag permissions) const override;

    std::shared_ptr<std::istream> createInputStream(std::u16string const& path, unsigned mode) const override;
    std::shared_ptr<std::istream> createInputStream(std::u16string const& path, unsigned mode,
                                                    boost::system::error_code& code) const override;
    std::shared_ptr<std::ostream> createOutputStream(std::u16string const& path, unsigned mode) const override;
    std::shared_ptr<std::ostream> createOutputStream(std::u16string const& path, unsigned mode,
                                                     boost::system::error_code& code) const override;

    void copy(std::u16string const& from, std::u16string const& to, ExistsMode mode) const override;
    void replaceFileWithBackup(std::u16string const& target, FileSystemOps& sourceFileSystem,
                               std::u16string const& source, CommitOptions const& options) const override;
    bool remove(std::u16string const& path, boost::system::error_code& code) const override;
    std::uintmax_t removeAll(std::u16string const& path, boost::system::error_code& code) const override;
};

} // namespace opc
