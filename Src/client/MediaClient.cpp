// CMediaClient forwards every call to its CMediaClientInternal.
#include "MediaClientInternal.h"
#include "ZarnMediaClient.h"

namespace Velto::Zarn {

CMediaClient::CMediaClient() : m_internal(new CMediaClientInternal()) {}

CMediaClient::~CMediaClient() { delete m_internal; }

void CMediaClient::enableZarnClientLog(int logLevel, const char* logPath) { m_internal->enableZarnClientLog(logLevel, logPath); }

void CMediaClient::setMediaSDKLogFile(const char* path) { m_internal->setMediaSDKLogFile(path); }

void CMediaClient::setDefaultECType(unsigned short dataNum, unsigned short ecNum) { m_internal->setDefaultECType(dataNum, ecNum); }

void CMediaClient::setTimeZoneDiff(int hours) { m_internal->setTimeZoneDiff(hours); }

int CMediaClient::initialize(const Config& config, Velto::Kandu::TFunction1<void, ZarnState> callback) { return m_internal->initialize(config, std::move(callback)); }

void CMediaClient::setMaxLockRatio(int ratio) { m_internal->setMaxLockRatio(ratio); }

void CMediaClient::setMaxFrameSize(int bytes) { m_internal->setMaxFrameSize(bytes); }

int CMediaClient::getLockRatio() const { return m_internal->getLockRatio(); }

int CMediaClient::queryRecordClipList(unsigned streamId, unsigned beginTime, unsigned endTime, std::vector<RecordClip>& clips, unsigned durationPerClip) { return m_internal->queryRecordClipList(streamId, beginTime, endTime, clips, durationPerClip); }

int CMediaClient::queryRecordFileList(unsigned streamId, unsigned beginTime, unsigned endTime, std::vector<RecordClipEx>& files) { return m_internal->queryRecordFileList(streamId, beginTime, endTime, files); }

int CMediaClient::queryAlignedClipList(unsigned streamId, unsigned beginTime, unsigned endTime, std::vector<RecordClip>& clips, unsigned durationPerClip) { return m_internal->queryAlignedClipList(streamId, beginTime, endTime, clips, durationPerClip); }

int CMediaClient::queryRecordStatus(unsigned streamId, unsigned beginTime, unsigned endTime, std::vector<bool>& status, unsigned step) const { return m_internal->queryRecordStatus(streamId, beginTime, endTime, status, step); }

int CMediaClient::deleteRecordClip(unsigned streamId, unsigned beginTime, unsigned endTime) { return m_internal->deleteRecordClip(streamId, beginTime, endTime); }

int CMediaClient::addStream(unsigned streamId, short type, bool sync) { return m_internal->addStream(streamId, type, sync); }

int CMediaClient::writeFrame(unsigned streamId, const VeltoFrame* frame, unsigned frameTime, unsigned long long& position) { return m_internal->writeFrame(streamId, frame, frameTime, position); }

int CMediaClient::flushFrame(unsigned streamId) { return m_internal->flushFrame(streamId); }

int CMediaClient::deleteStream(unsigned streamId) { return m_internal->deleteStream(streamId); }

int CMediaClient::addSession(unsigned streamId, unsigned beginTime, unsigned endTime, bool sync) { return m_internal->addSession(streamId, beginTime, endTime, sync); }

int CMediaClient::readFrame(unsigned sessionId, VeltoFrame* frame, unsigned long long& length, bool keyFramesOnly, bool reverse) { return m_internal->readFrame(sessionId, frame, length, keyFramesOnly, reverse); }

int CMediaClient::seek(unsigned sessionId, unsigned seekTime) { return m_internal->seek(sessionId, seekTime); }

int CMediaClient::deleteSession(unsigned sessionId) { return m_internal->deleteSession(sessionId); }

int CMediaClient::lockStream(unsigned streamId, std::vector<RecordClip>& clips) { return m_internal->lockStream(streamId, clips); }

int CMediaClient::lockStream(unsigned streamId, unsigned beginTime, unsigned endTime) { return m_internal->lockStream(streamId, beginTime, endTime); }

int CMediaClient::unlockStream(unsigned streamId, unsigned beginTime, unsigned endTime, unsigned char& lockNum, bool all) { return m_internal->unlockStream(streamId, beginTime, endTime, lockNum, all); }

int CMediaClient::setRecyclePolicy(unsigned streamId, unsigned durationHours, unsigned space) { return m_internal->setRecyclePolicy(streamId, durationHours, space); }

int CMediaClient::setRecyclePolicy(std::string cameraId, std::list<unsigned>& streamIds, unsigned durationHours, unsigned space) { return m_internal->setRecyclePolicy(cameraId, streamIds, durationHours, space); }

int CMediaClient::setUrgentRecycleRatio(unsigned ratio) { return m_internal->setUrgentRecycleRatio(ratio); }

bool CMediaClient::getSystemInfo(SystemInfo& info) { return m_internal->getSystemInfo(info); }

int CMediaClient::setForgottenStorage(unsigned streamId, unsigned durationHours, unsigned space) { return m_internal->setForgottenStorage(streamId, durationHours, space); }

bool CMediaClient::isSupportLocalStore() { return m_internal->isSupportLocalStore(); }

bool CMediaClient::discardStream(unsigned streamId, unsigned durationHours, unsigned space) { return m_internal->discardStream(streamId, durationHours, space); }

int CMediaClient::deleteRecord(std::string cameraId, std::list<unsigned>& streamIds) { return m_internal->deleteRecord(cameraId, streamIds); }

}  // namespace Velto::Zarn
