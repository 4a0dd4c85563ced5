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
    // ---- Access modes of initial ----------------------------------------------------------------------------------

    /** The server runs in this process, and nobody else steers it. */
    public static final int INTERNAL_SERVER = 0;
    /** The server runs in this process; others steer it by /tmp/nfs-server. One per machine. */
    public static final int EXTERNAL_SERVER = 1;
    /** No server: each method asks the external server of this machine. */
    public static final int CLIENT = 2;

    // ---- Bits of a log control ------------------------------------------------------------------------------------

    /** What failed, and why. */
    public static final int LOG_ERRORS = 1;
    /** General information. */
    public static final int LOG_GENERAL = 2;
    /** Heads of calls; each reply then leaves by itself. */
    public static final int LOG_RPC = 4;
    /** The names of the procedures that clients call. */
    public static final int LOG_PROCEDURES = 8;
    /** Their arguments and results. */
    public static final int LOG_ARGUMENTS = 16;
    /** Redirected files: opened, fed, exported. */
    public static final int LOG_REDIRECTED_FILES = 32;
    /** Messages of the remote control. */
    public static final int LOG_IPC = 64;
    /** Connections of the remote control. */
    public static final int LOG_IPC_STATE = 128;
    /** Each access to a file on disk. */
    public static final int LOG_FILE_ACCESS = 256;
    /** Registration with the system's portmapper. */
    public static final int LOG_PORTMAPPER = 512;

    // ---- Life of a controller -------------------------------------------------------------------------------------

    /**
     * Makes a controller that calls itself logID in its log lines; a mode other than 1 and 2 is the internal server.
     * What variables of the environment ask for (NFSLIB_BIND and others, see the guide) is taken over now.
     * @return its handle
     * @throws IOException with the reason: the ID is empty or cannot name a socket
     */
    public native long initial(String logID, int accessMode, int logControl) throws IOException;

    /**
     * Modes 1 and 2: opens the channel between the processes. Mode 0: does nothing.
     * @return true, but for the handle 0
     * @throws IOException with the reason: the name is in use, the socket cannot be made
     */
    public native boolean startRemoteController(long handle) throws IOException;

    /**
     * Opens the ports; one below 1 stands for the default. A read-only server refuses every change by clients.
     * Mode 2: the external server does. A start that fails forgets every export, session and redirected file, as
     * {@link #stopServer} does: add them anew before the next one. (Not one that is refused because the server runs.)
     * @return true, but for the handle 0
     * @throws IOException with the reason: it runs already, a port is taken
     */
    public native boolean startServer(long handle, int mountPort, int nfsPort, boolean readOnly) throws IOException;

    /**
     * Makes this object the receiver of log lines and notifications until {@link #isInterrupted} is true, the seconds
     * are over (negative: never), or the controller ends. Run it on a daemon thread of its own.
     * @return false
     */
    public native boolean receiveCallbackLoop(long handle, int lifeTimeInSec);

    /** Closes the ports and forgets exports, sessions and redirected files. Mode 2: does nothing. */
    public native void stopServer(long handle);

    /** Closes the channel of {@link #startRemoteController}. */
    public native void stopRemoteController(long handle);

    /** Frees the controller, after the calls that are inside it. */
    public native void terminate(long handle);

    // ---- What it is and does --------------------------------------------------------------------------------------

    /** @return whether the ports are open; mode 2: those of the external server */
    public native boolean isServerRunning(long handle);

    /** @return a sum: 1 reachable, 2 serving, 4 debug action; 0 when there is no server */
    public native int getServerStatus(long handle);

    /** @return 0, 1 or 2; -1 for a handle that stands for nothing */
    public native int getAccessMode(long handle);

    /** @return the version of the server; "Unknown" when none answers, "Not Defined" without a handle */
    public native String getVersion(long handle);

    /** @return what kind of server it is; "Unknown" when none answers */
    public native String getDescription(long handle);

    /** Says what is logged from now on, as a sum of the LOG_ constants. */
    public native void setLogControl(long handle, int logControl);

    // ---- Exports and sessions -------------------------------------------------------------------------------------

    /**
     * Exports a directory under a name without slash and blank. The directory itself is not looked at: a path where
     * there is none is exported all the same, and its clients get I/O errors until there is one. Ask
     * {@link #runQuickTestMode runQuickTestMode} first.
     * @return true, but for the handle 0
     * @throws IOException with the reason: name or path is exported already, or the name cannot be one
     */
    public native boolean addMountPoint(long handle, String localMountPath, String exportName) throws IOException;

    /** Takes an export back; a path that is not exported is passed over. */
    public native void removeMountPoint(long handle, String localMountPath);

    /**
     * @param clientMountedOnly count those alone that a client has mounted
     * @param printDetails hand each to {@link #logRaw}
     * @return the number of exports
     */
    public native int getMountInfo(long handle, boolean clientMountedOnly, boolean printDetails);

    /**
     * Notes that a piece of the host's work, under an ID of its choice, uses an export. The server makes nothing of it.
     */
    public native void addSession(long handle, String sessionID, String localMountPath);

    /** Drops such a note. */
    public native void removeSession(long handle, String sessionID);

    /** @return whether there is such a note; mode 2: at the external server */
    public native boolean isSessionExists(long handle, String sessionID);

    /** @return whether there is such a note in this process, whatever the mode */
    public native boolean isLocalSessionExists(long handle, String sessionID);

    /**
     * @param printDetails hand each to {@link #logRaw}
     * @return the number of sessions
     */
    public native int getSessionInfo(long handle, boolean printDetails);

    // ---- Redirected files -----------------------------------------------------------------------------------------

    /**
     * Lets clients see, in place of the file under this path, one of this size that segments make up. Sizes in MB below
     * 1 stand for the defaults, 32 and 1024; they matter only with an info file, which keeps the map on disk.
     */
    public native void openRedirectedFile(long handle, String path, long size, boolean createInfoFile,
                                          int infoFileSegmentSizeMB, int infoFileCheckPointSizeMB);

    /**
     * Says that the bytes from offset on, length of them, are those of srcPath from srcFileOffset on; null: zeros.
     * @throws IOException with the reason: the file is not open, the offset is not inside it
     */
    public native void addRedirectedFileSegment(long handle, String path, String srcPath, long srcFileOffset,
                                                long offset, long length) throws IOException;

    /** Writes the whole content to an existing file in an export; failures are log lines. */
    public native void exportRedirectedFile(long handle, String path, String exportPath);

    /**
     * Writes the map as text to an existing file in an export; mergeRange: neighbours of one source in one line.
     */
    public native void exportRedirectedFileInfo(long handle, String path, String exportPath, boolean mergeRange);

    /** The path stands for the file on disk again. */
    public native void closeRedirectedFile(long handle, String path);

    /** The same for every redirected file at or below a path. */
    public native void closeAllRedirectedFiles(long handle, String path);

    /** Closes the descriptor that the server keeps for an ordinary file; a client's next call opens it again. */
    public native void closeOpenedFile(long handle, String path);

    /** The same for every file at or below a path. */
    public native void closeAllOpenedFiles(long handle, String path);

    // ---- Tests, datastores, network devices -----------------------------------------------------------------------

    /** Tries every file operation the server needs, with a file of this size below dirPath; tells by log lines. */
    public native void runTestMode(long handle, String dirPath, long fileSize);

    /**
     * Mode 0, the only one: does the path exist on the server?
     * @return true, but for the handle 0
     * @throws IOException with the system's error number, as "ErrCode=2"
     */
    public native boolean runQuickTestMode(long handle, String path, int mode) throws IOException;

    /** Remembers a datastore that a vSphere host has mounted, to be unmounted when the server stops. */
    public native void addVSphereInfo(long handle, String datastoreMoid, String host, String port, String user,
                                      String pwd);

    /** Forgets it. */
    public native void removeVSphereInfo(long handle, String datastoreMoid);

    /**
     * Runs the installation's command for a network device.
     * @return whether it succeeded
     */
    public native boolean addNetDeviceCredential(long handle, String path, String user, String pwd);

    /**
     * Runs the installation's command that takes it back.
     * @return whether it succeeded
     */
    public native boolean removeNetDeviceCredential(long handle, String path);

    // ---- Host methods: the library calls these, on any thread -----------------------------------------------------
    // While one of the four notifications runs, every client waits. A method that throws counts as answered with -1.

    /** Asked once a second by {@link #receiveCallbackLoop}: true ends it. */
    public boolean isInterrupted() {
        return false;
    }

    /**
     * A line of the log. Without this method, or when it throws, the line goes to standard output.
     * @param id whom it is about: an export, a client's address, or the controller's logID
     */
    public void logInfo(String id, String message) {
        System.out.println("[info] (" + id + ") " + message);
    }

    /** The line of an error; see {@link #logInfo}. */
    public void logError(String id, String message) {
        System.out.println("[erro] (" + id + ") " + message);
    }

    /** A line of a listing; it brings its own line ends, if any. */
    public void logRaw(String id, String message) {
        System.out.println(message);
    }

    /**
     * A client wants to change size or times (seconds since 1970) of a redirected file, or, with all three flags false,
     * its mode or owner. Nothing changes by itself: another size is seen when the file is opened anew with it.
     * @param id the export that the file lies in
     * @return 0: the client is told of success; anything else: it fails
     */
    public int setRedirectedFileAttributes(String id, String path, boolean hasSize, long size, boolean hasAccessTime,
                                           long accessTime, boolean hasModificationTime, long modificationTime) {
        return -1;
    }

    /**
     * A client has removed a redirected file: the entry on disk is gone, and the file is closed.
     * @param id the export that it lay in
     * @return 0: the client is told of success; anything else: of a failure, and the file stays removed
     */
    public int removeRedirectedFile(String id, String path) {
        return -1;
    }

    /**
     * A client has renamed a redirected file, or a folder above it.
     * @param id the export that the file lies in
     * @return 0: the client is told of success; anything else: of a failure, and the rename is undone, unless it
     *         replaced something
     */
    public int renameRedirectedFile(String id, String oldPath, String newPath) {
        return -1;
    }

    /**
     * A client writes to a redirected file; where, not what: nobody keeps the data.
     * @param id the export that the file lies in
     * @param seek the offset
     * @param seekType 0, from the start of the file
     * @param length the number of bytes, at most 16384
     * @return the number of bytes that the client is told were stored, as a rule length; negative: the write fails
     */
    public int writeRedirectedFile(String id, String path, long seek, int seekType, int length) {
        return -1;
    }
}
