package hosttest;

import com.norvo.kbt.quickspin.nfs.NfsLibNative;
import java.io.BufferedOutputStream;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.net.Socket;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;

/** Work that takes many calls: done here, so that the virtual machine is what is strained. */
final class HostStress {
    private static final int NFS_PORT = 2049;
    private static final int LOG_ERRORS = 1;
    private static final int LOG_PROCEDURES = 8;

    private HostStress() {}

    static String run(NfsLibNative host, String[] fields) throws Exception {
        switch (fields[2]) {
            case "threads":
                return threads(host, Long.parseLong(fields[3]), fields[4], Integer.parseInt(fields[5]));
            case "cycles":
                return cycles(fields[3], Integer.parseInt(fields[4]));
            case "calls":
                return calls(host, Integer.parseInt(fields[3]));
            case "lines":
                return lines(host, Long.parseLong(fields[3]), Integer.parseInt(fields[4]));
            default:
                return "!unknown stress";
        }
    }

    /** Eight threads that use one handle at once, each with exports, sessions and redirected files of its own. */
    private static String threads(NfsLibNative host, long handle, String folder, int rounds) throws Exception {
        AtomicReference<Throwable> failure = new AtomicReference<>();
        AtomicInteger calls = new AtomicInteger();
        for (Thread thread : HostShell.startAll(8, index -> {
            try {
                for (int i = 0; i < rounds; i++) {
                    work(host, handle, folder + "/" + index, "t" + index);
                    calls.incrementAndGet();
                }
            } catch (Throwable e) {
                failure.compareAndSet(null, e);
            }
        })) {
            thread.join();
        }
        return failure.get() != null ? "!" + failure.get() : "ok " + calls.get();
    }

    private static void work(NfsLibNative host, long handle, String path, String name) throws IOException {
        check(host.addMountPoint(handle, path, name), "addMountPoint");
        host.addSession(handle, name, path);
        check(host.isSessionExists(handle, name), "isSessionExists");
        host.openRedirectedFile(handle, path + "/disk", 1 << 20, false, 0, 0);
        host.addRedirectedFileSegment(handle, path + "/disk", path + "/source", 0, 0, 1 << 19);
        check(host.getMountInfo(handle, false, true) >= 1, "getMountInfo");
        host.closeAllRedirectedFiles(handle, path);
        host.removeSession(handle, name);
        check(!host.isSessionExists(handle, name), "removeSession");
        host.removeMountPoint(handle, path);
        check(host.getVersion(handle).equals("1.4"), "getVersion");
        try {
            host.runQuickTestMode(handle, path, 9);
            throw new IllegalStateException("a wrong mode was not refused");
        } catch (IOException e) {
            check(e.getMessage().equals("Unknown mode (9)"), e.getMessage());
        }
    }

    /** The whole life of a controller, again and again, each with a lasting callback and a client's call. */
    private static String cycles(String folder, int count) throws Exception {
        List<Thread> loops = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            NfsLibNative host = new NfsLibNative();
            CountDownLatch receiving = new CountDownLatch(1);
            CountDownLatch called = new CountDownLatch(1);
            host.setReaction("isInterrupted", arguments -> {
                receiving.countDown();
                return null;
            });
            host.setReaction("logInfo", arguments -> {
                if (arguments[1].equals("[Nfs3Prog.ProcedureNULL]")) {
                    called.countDown();
                }
                return null;
            });
            long handle = host.initial("cycle", i % 2, LOG_ERRORS | LOG_PROCEDURES);
            check(host.startRemoteController(handle), "startRemoteController");
            Thread loop = new Thread(() -> host.receiveCallbackLoop(handle, -1));
            loop.start();
            loops.add(loop); // ends when its controller is terminated
            receiving.await();
            check(host.startServer(handle, 0, 0, false), "startServer");
            check(host.addMountPoint(handle, folder, "data"), "addMountPoint");
            host.openRedirectedFile(handle, folder + "/disk", 1 << 20, false, 0, 0);
            host.addRedirectedFileSegment(handle, folder + "/disk", folder + "/source", 0, 0, 1 << 19);
            host.exportRedirectedFile(handle, folder + "/disk", folder + "/copy");
            try (Socket client = new Socket("127.0.0.1", NFS_PORT)) {
                callNull(client);
            }
            check(called.getCount() == 0, "a line from a thread of the library");
            check(host.getServerStatus(handle) == 3, "getServerStatus");
            host.stopServer(handle);
            host.stopRemoteController(handle);
            host.terminate(handle);
        }
        for (Thread loop : loops) {
            loop.join();
        }
        return "ok";
    }

    /** Calls of a client, each with many lines from the library's threads, until so many lines have come. */
    private static String calls(NfsLibNative host, int count) throws IOException {
        AtomicInteger seen = new AtomicInteger();
        host.setReaction("logInfo", arguments -> {
            seen.incrementAndGet();
            return null;
        });
        try (Socket client = new Socket("127.0.0.1", NFS_PORT)) {
            while (seen.get() < count) {
                int before = seen.get();
                callNull(client);
                check(seen.get() > before, "no lines");
            }
        }
        return "ok " + (seen.get() >= count);
    }

    /** NFS procedure 0 over TCP: what it logs has been logged when its reply is there. */
    private static void callNull(Socket client) throws IOException {
        DataOutputStream out = new DataOutputStream(new BufferedOutputStream(client.getOutputStream()));
        // Last fragment of 40 bytes; XID, call, RPC version 2, program, version, procedure, two empty authentications.
        for (int word : new int[] {0x80000000 | 40, 1, 0, 2, 100003, 3, 0, 0, 0, 0, 0}) {
            out.writeInt(word);
        }
        out.flush();
        byte[] reply = new byte[28];
        new DataInputStream(client.getInputStream()).readFully(reply);
    }

    /** Listings that print every export, until so many lines have come. */
    private static String lines(NfsLibNative host, long handle, int count) {
        AtomicInteger seen = new AtomicInteger();
        host.setReaction("logRaw", arguments -> {
            seen.incrementAndGet();
            return null;
        });
        while (seen.get() < count) {
            int before = seen.get();
            host.getMountInfo(handle, false, true);
            check(seen.get() > before, "no lines");
        }
        return "ok " + seen.get();
    }

    private static void check(boolean good, String what) {
        if (!good) {
            throw new IllegalStateException(what);
        }
    }
}
