package hosttest;

import com.norvo.kbt.quickspin.nfs.NfsLibNative;
import java.io.BufferedReader;
import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.InputStreamReader;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.concurrent.Callable;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import java.util.function.IntConsumer;

/**
 * A host that does what a test tells it, line by line: fields separated by tabs, Strings with backslash-u escapes,
 * "\null" for null. Each line is answered with one line, "<<number>>" and the result; an exception is its class and
 * message behind a "!".
 *
 * <pre>
 * new NAME                        a host object
 * call NAME METHOD ARGS...        a native method on it
 * start THREAD NAME METHOD ARGS   the same on a new thread
 * join THREAD MILLISECONDS        its result, or "running"
 * answer NAME METHOD VALUE        what a host method answers; "length": its last argument
 * throw NAME METHOD CLASS         what a host method throws
 * react NAME METHOD LINE...       a line of this kind that a host method carries out when called (once)
 * block NAME METHOD               a host method that answers (its last argument) only when released
 * release                         lets those that are blocked go on, for good
 * overtake NAME HANDLE PORT       as a reaction to a line of a start: stopServer, behind another start on this NFS port,
 *                                 made on the thread "next"
 * exit CODE, halt CODE            ends the machine from a thread of its own
 * loaders LIBRARY COPY FOLDER     see HostLoaders
 * events NAME                     what happened to the object since last asked
 * record NAME on|off
 * stress NAME ...                 see HostStress
 * quit
 * </pre>
 */
public final class HostShell {
    private static final FileOutputStream OUT = new FileOutputStream(FileDescriptor.out);

    private final Map<String, NfsLibNative> hosts = new ConcurrentHashMap<>();
    private final Map<String, FutureTask<String>> threads = new ConcurrentHashMap<>();
    private final CountDownLatch released = new CountDownLatch(1);

    private HostShell() {}

    public static void main(String[] args) throws Exception {
        System.load(args[0]);
        HostShell shell = new HostShell();
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.US_ASCII));
        int number = 0;
        for (String line = in.readLine(); line != null && !line.equals("quit"); line = in.readLine()) {
            String result = shell.run(line.split("\t", -1));
            // In one piece: the library prints as well.
            OUT.write(("<<" + ++number + ">>" + result + "\n").getBytes(StandardCharsets.US_ASCII));
        }
    }

    private String run(String[] fields) throws Exception {
        NfsLibNative host = fields.length > 1 ? hosts.get(fields[1]) : null;
        switch (fields[0]) {
            case "new":
                hosts.put(fields[1], new NfsLibNative());
                return "ok";
            case "call":
                return call(host, fields, 2);
            case "start":
                return start(fields[1], () -> call(hosts.get(fields[2]), fields, 3));
            case "join":
                return join(fields[1], Long.parseLong(fields[2]));
            case "answer":
                host.setReaction(fields[2], answering(fields[3]));
                return "ok";
            case "throw":
                host.setReaction(fields[2], throwing(fields[3]));
                return "ok";
            case "react":
                host.setReaction(fields[2], reacting(Arrays.copyOfRange(fields, 3, fields.length)));
                return "ok";
            case "block":
                host.setReaction(fields[2], this::block);
                return "ok";
            case "release":
                released.countDown();
                return "ok";
            case "overtake":
                start("next", () -> call(host, new String[] {"startServer", fields[2], "0", fields[3], "false"}, 0));
                Thread.sleep(20); // it waits in the library by then, most of the time
                return call(host, new String[] {"stopServer", fields[2]}, 0);
            case "exit":
                new Thread(() -> System.exit(Integer.parseInt(fields[1]))).start();
                return "ok";
            case "halt":
                new Thread(() -> Runtime.getRuntime().halt(Integer.parseInt(fields[1]))).start();
                return "ok";
            case "loaders":
                return HostLoaders.run(fields[1], fields[2], fields[3]);
            case "events":
                return escape(String.join("\t", host.takeEvents()));
            case "record":
                host.setRecording(fields[2].equals("on"));
                return "ok";
            case "stress":
                return HostStress.run(host, fields);
            default:
                return "!unknown command";
        }
    }

    private String start(String name, Callable<String> work) {
        FutureTask<String> task = new FutureTask<>(work);
        threads.put(name, task);
        Thread thread = new Thread(task, name);
        thread.setDaemon(true);
        thread.start();
        return "ok";
    }

    private String join(String name, long milliseconds) throws Exception {
        try {
            return threads.get(name).get(milliseconds, TimeUnit.MILLISECONDS);
        } catch (TimeoutException e) {
            return "running";
        }
    }

    private Object block(Object[] arguments) {
        try {
            released.await();
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        return arguments[arguments.length - 1];
    }

    private static NfsLibNative.Reaction answering(String value) {
        switch (value) {
            case "length":
                return arguments -> arguments[arguments.length - 1];
            case "true":
            case "false":
                return arguments -> Boolean.valueOf(value);
            default:
                return arguments -> Integer.valueOf(value);
        }
    }

    private static NfsLibNative.Reaction throwing(String name) {
        return arguments -> {
            throw HostShell.<RuntimeException>unchecked(make(name));
        };
    }

    private static Throwable make(String name) {
        try {
            return (Throwable) Class.forName(name).getConstructor(String.class).newInstance("thrown by the host");
        } catch (ReflectiveOperationException e) {
            return e;
        }
    }

    @SuppressWarnings("unchecked")
    private static <T extends Throwable> T unchecked(Throwable thrown) throws T {
        throw (T) thrown;
    }

    private NfsLibNative.Reaction reacting(String[] fields) {
        // There to be joined from now on; a task runs once, however often the method is called.
        FutureTask<String> task = new FutureTask<>(() -> run(fields));
        threads.put("reaction", task);
        return arguments -> {
            task.run();
            return null;
        };
    }

    private static String call(NfsLibNative host, String[] fields, int at) {
        Method method = null;
        for (Method candidate : NfsLibNative.class.getMethods()) {
            if (candidate.getName().equals(fields[at])) {
                method = candidate;
            }
        }
        Class<?>[] types = method.getParameterTypes();
        Object[] arguments = new Object[types.length];
        for (int i = 0; i < types.length; i++) {
            arguments[i] = convert(types[i], fields[at + 1 + i]);
        }
        try {
            Object result = method.invoke(host, arguments);
            return method.getReturnType() == void.class ? "void" : escape(String.valueOf(result));
        } catch (InvocationTargetException e) {
            Throwable cause = e.getCause();
            return "!" + cause.getClass().getName() + ": " + escape(String.valueOf(cause.getMessage()));
        } catch (IllegalAccessException e) {
            return "!" + e;
        }
    }

    private static Object convert(Class<?> type, String text) {
        if (type == long.class) {
            return Long.valueOf(text);
        }
        if (type == int.class) {
            return Integer.valueOf(text);
        }
        if (type == boolean.class) {
            return Boolean.valueOf(text);
        }
        return text.equals("\\null") ? null : unescape(text);
    }

    static String unescape(String text) {
        StringBuilder out = new StringBuilder();
        for (int i = 0; i < text.length(); i++) {
            if (text.startsWith("\\u", i)) {
                out.append((char) Integer.parseInt(text.substring(i + 2, i + 6), 16));
                i += 5;
            } else {
                out.append(text.charAt(i));
            }
        }
        return out.toString();
    }

    /** Everything beyond printable ASCII but the tab as backslash-u escapes. */
    static String escape(String text) {
        StringBuilder out = new StringBuilder();
        for (char c : text.toCharArray()) {
            if (c >= ' ' && c < 0x7F || c == '\t') {
                out.append(c);
            } else {
                out.append(String.format("\\u%04X", (int) c));
            }
        }
        return out.toString();
    }

    static List<Thread> startAll(int count, IntConsumer work) {
        List<Thread> started = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            int index = i;
            Thread thread = new Thread(() -> work.accept(index));
            started.add(thread);
            thread.start();
        }
        return started;
    }
}
