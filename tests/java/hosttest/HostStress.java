package hosttest;

import com.norvo.kbt.quickspin.nfs.NfsLibNative;
import java.io.IOException;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;

/** Work that takes many calls: done here, so that the virtual machine is what is strained. */
final class HostStress {
    private HostStress() {}

    static String run(NfsLibNative host, String[] fields) throws Exception {
        switch (fields[2]) {
            case "threads":
                return threads(host, Long.parseLong(fields[3]), fields[4], Integer.parseInt(fields[5]));
            case "cycles":
                return cycles(host, fields[3], Integer.parseInt(fields[4]));
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

    /** The whole life of a controller, again and again. */
    private static String cycles(NfsLibNative host, String folder, int count) throws IOException {
        for (int i = 0; i < count; i++) {
            long handle = host.initial("cycle", i % 2, 1);
            check(host.startRemoteController(handle), "startRemoteController");
            check(host.startServer(handle, 0, 0, false), "startServer");
            check(host.addMountPoint(handle, folder, "data"), "addMountPoint");
            host.openRedirectedFile(handle, folder + "/disk", 1 << 20, false, 0, 0);
            host.addRedirectedFileSegment(handle, folder + "/disk", folder + "/source", 0, 0, 1 << 19);
            host.exportRedirectedFile(handle, folder + "/disk", folder + "/copy");
            check(host.getServerStatus(handle) == 3, "getServerStatus");
            host.stopServer(handle);
            host.stopRemoteController(handle);
            host.terminate(handle);
        }
        return "ok";
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
