// Descriptor watches on the host's descriptors.

#include <utility>

#include "ZelBrelo/Platform.h"
#include "ZelBrelo/internal/PendingNotifiee.h"
#include "ZelBrelo/internal/PlatformTrace.h"

namespace ZelBrelo {

class FileDescriptor::Notifiee : public Zel::PtrInterface::NotifieeConst, public PendingNotifiee {
 public:
  Notifiee(FileDescriptor* owner, int fd) : owner_(owner), notifieeFd_(fd) {}

  void onAttribute(Zel::AttributeId id, void const* value) override {
    if (id != Zel::readableCountAttribute && id != Zel::writableCountAttribute) {
      return Zel::PtrInterface::NotifieeConst::onAttribute(id, value);
    }
    if (owner_ == nullptr) {
      BRELO_TRACE(platformTrace, 5, "FileDescriptor::Notifiee", "fd:{} ignoring orphan",
                  notifieeFd_);
      return;
    }
    if (id == Zel::readableCountAttribute) {
      onReadableCount();
    } else {
      onWritableCount();
    }
  }
  void addTo(Brelo::Platform::PendingList& list) const override {
    if (owner_ == nullptr) return;
    Zel::FileDescriptor const& host = *owner_->hostFd_;
    list.addDescriptor(owner_->handler_->handlerName(), host.descriptor(), host.notifyOnReadable(),
                       host.notifyOnWritable());
  }
  void orphan() {
    BRELO_TRACE(platformTrace, 5, "FileDescriptor::Notifiee", "fd:{}", notifieeFd_);
    owner_ = nullptr;
  }
  void fdIs(int fd) { notifieeFd_ = fd; }

 private:
  ~Notifiee() override {
    BRELO_TRACE(platformTrace, 5, "FileDescriptor::Notifiee", "fd:{}", notifieeFd_);
  }

  void onReadableCount() {
    std::uint32_t const count = owner_->hostFd_->readableCount();
    BRELO_TRACE(platformTrace, 5, "FileDescriptor", "fd:{} readableCount:{}", notifieeFd_, count);
    if (count == owner_->readableCount_) return;
    try {
      owner_->readableCount_ = count;
      owner_->handler_->readFdEvent(owner_->getFd());
    } catch (...) {
      if (!handled()) throw;
      BRELO_TRACE(platformTrace, 9, nullptr,
                  "FileDescriptor::onReadableCount: Fd notification exception was handled");
    }
  }

  void onWritableCount() {
    std::uint32_t const count = owner_->hostFd_->writableCount();
    BRELO_TRACE(platformTrace, 5, "FileDescriptor", "fd:{} writableCount:{}", notifieeFd_, count);
    if (count == owner_->writableCount_) return;
    try {
      owner_->setWrites(false);
      owner_->writableCount_ = owner_->hostFd_->writableCount();
      owner_->handler_->writeFdEvent(owner_->getFd());
    } catch (...) {
      if (!handled()) throw;
      BRELO_TRACE(platformTrace, 9, nullptr,
                  "FileDescriptor::onWritableCount: Fd notification exception was handled");
    }
  }

  /// The handler may have destroyed the control before it threw.
  bool handled() const {
    return owner_ != nullptr && owner_->handler_->handleFdException(notifieeFd_);
  }

  FileDescriptor* owner_;
  int notifieeFd_;
};

FileDescriptor::FileDescriptor(Zel::Ptr<Zel::FileDescriptor> hostFd,
                               Brelo::Platform::FdEventHandler* handler)
    : FdControl(handler),
      hostFd_(std::move(hostFd)),
      notifiee_(new Notifiee(this, hostFd_->descriptor())) {
  notifiee_->notifierIs(hostFd_);
  notifiee_->isRegisteredNotifieeIs(true);
  BRELO_TRACE(platformTrace, 5, "FileDescriptor", "done, ref:{}", notifiee_->references());
}

FileDescriptor::~FileDescriptor() {
  notifiee_->orphan();
  FileDescriptor::delFd();
}

void FileDescriptor::setReads(bool on) {
  BRELO_TRACE(platformTrace, 5, "FileDescriptor", "{}", on);
  hostFd_->notifyOnReadableIs(on);
}

void FileDescriptor::setReadsAgain(unsigned passes) {
  BRELO_TRACE(platformTrace, 5, "FileDescriptor", "{}", passes);
  hostFd_->notifyOnReadableAgain(passes);
}

void FileDescriptor::setWrites(bool on) {
  BRELO_TRACE(platformTrace, 5, "FileDescriptor", "{}", on);
  hostFd_->notifyOnWritableIs(on);
}

void FileDescriptor::setFd(int fd) {
  BRELO_TRACE(platformTrace, 5, "FileDescriptor", "registering fd:{}", fd);
  hostFd_->descriptorIs(-1);  // may be closed, or a stranger's by now: the mode is not for it
  hostFd_->nonBlockingIs(true);
  hostFd_->descriptorIs(fd);
  notifiee_->fdIs(fd);
}

void FileDescriptor::delFd() {
  BRELO_TRACE(platformTrace, 5, "FileDescriptor", "deleting fd:{}", getFd());
  clearEvents();
}

void FileDescriptor::clearEvents() {
  BRELO_TRACE(platformTrace, 5, "FileDescriptor", "fd:{}", getFd());
  hostFd_->descriptorIs(-1);
}

int FileDescriptor::getFd() const {
  return hostFd_->descriptor();
}

}  // namespace ZelBrelo
