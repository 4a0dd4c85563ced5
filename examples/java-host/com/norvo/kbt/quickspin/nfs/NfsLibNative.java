package com.norvo.kbt.quickspin.nfs;

import java.io.IOException;

/**
 * The library's native methods, and the host methods it calls back. Copy this class as it is: its name, and the names
 * and parameters of its methods, are what the library knows. Then extend it and override the host methods.
 *
 * <p>A handle stands for a controller, from {@link #initial} to {@link #terminate}; 0 stands for none.
 * docs/host-guide.md tells the rest: which thread calls what, and what each answer means.
 */
public class NfsLibNative {
    /** Access modes of {@link #initial}. */
    public static final int INTERNAL_SERVER = 0;
    public static final int EXTERNAL_SERVER = 1;
    public static final int CLIENT = 2;

    /** Bits of a log control. */
    public static final int LOG_ERRORS = 1;
    public static final int LOG_GENERAL = 2;
    public static final int LOG_RPC = 4;
    public static final int LOG_PROCEDURES = 8;
    public static final int LOG_ARGUMENTS = 16;
    public static final int LOG_REDIRECTED_FILES = 32;
    public static final int LOG_IPC = 64;
    public static final int LOG_IPC_STATE = 128;
    public static final int LOG_FILE_ACCESS = 256;
    public static final int LOG_PORTMAPPER = 512;

    // ---- Life of a controller -------------------------------------------------------------------------------------

    public native long initial(String logID, int accessMode, int logControl) throws IOException;
    public native boolean startRemoteController(long handle) throws IOException;
    public native boolean startServer(long handle, int mountPort, int nfsPort, boolean readOnly) throws IOException;
    public native boolean receiveCallbackLoop(long handle, int lifeTimeInSec);
    public native void stopServer(long handle);
    public native void stopRemoteController(long handle);
    public native void terminate(long handle);

    // ---- What it is and does --------------------------------------------------------------------------------------

    public native boolean isServerRunning(long handle);
    public native int getServerStatus(long handle);
    public native int getAccessMode(long handle);
    public native String getVersion(long handle);
    public native String getDescription(long handle);
    public native void setLogControl(long handle, int logControl);

    // ---- Exports and sessions -------------------------------------------------------------------------------------

    public native boolean addMountPoint(long handle, String localMountPath, String exportName) throws IOException;
    public native void removeMountPoint(long handle, String localMountPath);
    public native int getMountInfo(long handle, boolean clientMountedOnly, boolean printDetails);
    public native void addSession(long handle, String sessionID, String localMountPath);
    public native void removeSession(long handle, String sessionID);
    public native boolean isSessionExists(long handle, String sessionID);
    public native boolean isLocalSessionExists(long handle, String sessionID);
    public native int getSessionInfo(long handle, boolean printDetails);

    // ---- Redirected files -----------------------------------------------------------------------------------------

    public native void openRedirectedFile(long handle, String path, long size, boolean createInfoFile,
                                          int infoFileSegmentSizeMB, int infoFileCheckPointSizeMB);
    public native void addRedirectedFileSegment(long handle, String path, String srcPath, long srcFileOffset,
                                                long offset, long length) throws IOException;
    public native void exportRedirectedFile(long handle, String path, String exportPath);
    public native void exportRedirectedFileInfo(long handle, String path, String exportPath, boolean mergeRange);
    public native void closeRedirectedFile(long handle, String path);
    public native void closeAllRedirectedFiles(long handle, String path);
    public native void closeOpenedFile(long handle, String path);
    public native void closeAllOpenedFiles(long handle, String path);

    // ---- Tests, datastores, network devices -----------------------------------------------------------------------

    public native void runTestMode(long handle, String dirPath, long fileSize);
    public native boolean runQuickTestMode(long handle, String path, int mode) throws IOException;
    public native void addVSphereInfo(long handle, String datastoreMoid, String host, String port, String user,
                                      String pwd);
    public native void removeVSphereInfo(long handle, String datastoreMoid);
    public native boolean addNetDeviceCredential(long handle, String path, String user, String pwd);
    public native boolean removeNetDeviceCredential(long handle, String path);

    // ---- Host methods: the library calls these, on any thread -----------------------------------------------------

    /** Asked once a second by {@link #receiveCallbackLoop}: true ends it. */
    public boolean isInterrupted() {
        return false;
    }

    public void logInfo(String id, String message) {
        System.out.println("[info] (" + id + ") " + message);
    }

    public void logError(String id, String message) {
        System.out.println("[erro] (" + id + ") " + message);
    }

    /** A line of a listing; it brings its own line ends, if any. */
    public void logRaw(String id, String message) {
        System.out.println(message);
    }

    /** A client wants to change size or times (seconds since 1970) of a redirected file. 0 grants it. */
    public int setRedirectedFileAttributes(String id, String path, boolean hasSize, long size, boolean hasAccessTime,
                                           long accessTime, boolean hasModificationTime, long modificationTime) {
        return -1;
    }

    /** A client has removed a redirected file. 0 lets it succeed. */
    public int removeRedirectedFile(String id, String path) {
        return -1;
    }

    /** A client has renamed a redirected file. 0 lets it succeed. */
    public int renameRedirectedFile(String id, String oldPath, String newPath) {
        return -1;
    }

    /** A client has written. The answer is the number of bytes it is told were stored; a negative one fails it. */
    public int writeRedirectedFile(String id, String path, long seek, int seekType, int length) {
        return -1;
    }
}
