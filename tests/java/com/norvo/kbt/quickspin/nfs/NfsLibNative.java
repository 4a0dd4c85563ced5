package com.norvo.kbt.quickspin.nfs;

import java.io.IOException;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.atomic.AtomicBoolean;

/** The host class as the library knows it: the native methods, and host methods that record what they are told. */
public class NfsLibNative {
    /** What a host method does when it is called, beyond being recorded. */
    public interface Reaction {
        /** The answer: a Number or Boolean, or null for the default (0 or false). May throw. */
        Object react(Object[] arguments);
    }

    private final List<String> events = new ArrayList<>();
    private final Map<String, Reaction> reactions = new ConcurrentHashMap<>();
    private final AtomicBoolean asked = new AtomicBoolean();
    private volatile boolean recording = true;

    // ---- Native methods -------------------------------------------------------------------------------------------

    public native long initial(String logID, int accessMode, int logControl) throws IOException;
    public native void terminate(long handle);
    public native boolean isServerRunning(long handle);
    public native boolean startRemoteController(long handle) throws IOException;
    public native void stopRemoteController(long handle);
    public native boolean startServer(long handle, int mountPort, int nfsPort, boolean readOnly) throws IOException;
    public native void stopServer(long handle);
    public native boolean receiveCallbackLoop(long handle, int lifeTimeInSec);
    public native boolean addMountPoint(long handle, String localMountPath, String exportName) throws IOException;
    public native void removeMountPoint(long handle, String localMountPath);
    public native void addSession(long handle, String sessionID, String localMountPath);
    public native void removeSession(long handle, String sessionID);
    public native boolean isSessionExists(long handle, String sessionID);
    public native boolean isLocalSessionExists(long handle, String sessionID);
    public native void openRedirectedFile(long handle, String path, long size, boolean createInfoFile,
                                          int infoFileSegmentSizeMB, int infoFileCheckPointSizeMB);
    public native void closeRedirectedFile(long handle, String path);
    public native void closeAllRedirectedFiles(long handle, String path);
    public native void addRedirectedFileSegment(long handle, String path, String srcPath, long srcFileOffset,
                                                long offset, long length) throws IOException;
    public native void exportRedirectedFile(long handle, String path, String exportPath);
    public native void exportRedirectedFileInfo(long handle, String path, String exportPath, boolean mergeRange);
    public native void closeOpenedFile(long handle, String path);
    public native void closeAllOpenedFiles(long handle, String path);
    public native void setLogControl(long handle, int logControl);
    public native String getVersion(long handle);
    public native String getDescription(long handle);
    public native int getAccessMode(long handle);
    public native int getMountInfo(long handle, boolean clientMountedOnly, boolean printDetails);
    public native int getSessionInfo(long handle, boolean printDetails);
    public native void runTestMode(long handle, String dirPath, long fileSize);
    public native int getServerStatus(long handle);
    public native void addVSphereInfo(long handle, String datastoreMoid, String host, String port, String user,
                                      String pwd);
    public native void removeVSphereInfo(long handle, String datastoreMoid);
    public native boolean runQuickTestMode(long handle, String path, int mode) throws IOException;
    public native boolean addNetDeviceCredential(long handle, String path, String user, String pwd);
    public native boolean removeNetDeviceCredential(long handle, String path);

    // ---- Host methods ---------------------------------------------------------------------------------------------

    public boolean isInterrupted() {
        Object answer = happened("isInterrupted");
        return answer != null && (Boolean) answer;
    }

    public void logInfo(String id, String message) {
        happened("logInfo", id, message);
    }

    public void logError(String id, String message) {
        happened("logError", id, message);
    }

    public void logRaw(String id, String message) {
        happened("logRaw", id, message);
    }

    public int setRedirectedFileAttributes(String id, String path, boolean hasSize, long size, boolean hasAccessTime,
                                           long accessTime, boolean hasModificationTime, long modificationTime) {
        return answer(happened("setRedirectedFileAttributes", id, path, hasSize, size, hasAccessTime, accessTime,
                               hasModificationTime, modificationTime));
    }

    public int removeRedirectedFile(String id, String path) {
        return answer(happened("removeRedirectedFile", id, path));
    }

    public int renameRedirectedFile(String id, String oldPath, String newPath) {
        return answer(happened("renameRedirectedFile", id, oldPath, newPath));
    }

    public int writeRedirectedFile(String id, String path, long seek, int seekType, int length) {
        return answer(happened("writeRedirectedFile", id, path, seek, seekType, length));
    }

    // ---- The record -----------------------------------------------------------------------------------------------

    public void setReaction(String method, Reaction reaction) {
        reactions.put(method, reaction);
    }

    public void setRecording(boolean on) {
        recording = on;
    }

    /** Everything recorded so far, as "method(argument, ...)"; the record is empty afterwards. */
    public List<String> takeEvents() {
        synchronized (events) {
            List<String> taken = new ArrayList<>(events);
            events.clear();
            return taken;
        }
    }

    private static int answer(Object value) {
        return value == null ? 0 : ((Number) value).intValue();
    }

    private Object happened(String method, Object... arguments) {
        // The loop asks every second; only its first question is worth a line.
        if (recording && (!method.equals("isInterrupted") || !asked.getAndSet(true))) {
            StringBuilder text = new StringBuilder(method).append('(');
            for (int i = 0; i < arguments.length; i++) {
                text.append(i > 0 ? ", " : "").append(arguments[i]);
            }
            synchronized (events) {
                events.add(text.append(')').toString());
            }
        }
        Reaction reaction = reactions.get(method);
        return reaction == null ? null : reaction.react(arguments);
    }
}
