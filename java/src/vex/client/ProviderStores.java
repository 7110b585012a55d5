package vex.client;

import java.io.IOException;
import java.security.Security;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.Set;
import java.util.WeakHashMap;
import java.util.concurrent.locks.ReentrantLock;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.login.FailedLoginException;
import javax.security.auth.login.LoginException;

/**
 * The stores that were opened through one provider, and its login. A login is an open session of the provider's own
 * store. Any thread may call any method.
 */
final class ProviderStores {
    private static final String LOGGED_OUT = "The provider " + SigningProvider.NAME
        + " was logged out; load the KeyStore again";

    private final String ownStore;  // null: the provider has none
    private final ReentrantLock loginLock = new ReentrantLock();  // held while a PIN is asked for: one thread asks
    private final Set<OpenStore> open = Collections.newSetFromMap(new WeakHashMap<>());  // guarded by itself
    private StoreSession login;  // guarded by open; null: not logged in
    private volatile CallbackHandler handler;

    /** @param ownStore the URI of the store to open when load names none; null if there is no such store */
    ProviderStores(String ownStore) {
        this.ownStore = ownStore;
    }

    String ownStore() {
        return ownStore;
    }

    void setHandler(CallbackHandler newHandler) {
        handler = newHandler;
    }

    OpenStore open(String store, char[] pin) throws SigningException {
        return register(new OpenStore(StoreSession.open(StoreText.withPin(store, pin)), false));
    }

    /** Opens a store without a PIN. If it needs one, the handler is asked. */
    OpenStore open(String store, CallbackHandler asked) throws IOException, SigningException {
        return register(new OpenStore(Pin.open(store, () -> asked), false));
    }

    /**
     * Opens a store without a PIN. If it needs one, the provider's handler is asked: for its own store by a login.
     * While logged in, the own store is the one of the login.
     *
     * @throws IllegalStateException if another thread logs out between the login and the use of its store
     */
    OpenStore open(String store) throws IOException, SigningException {
        if (!store.equals(ownStore)) {
            return register(new OpenStore(Pin.open(store, this::handler), false));
        }
        OpenStore ofLogin = openLogin();
        if (ofLogin != null) {
            return ofLogin;
        }
        try {
            return register(new OpenStore(StoreSession.open(store), false));
        } catch (SigningException e) {
            if (!Pin.isMissing(e)) {
                throw e;
            }
        }
        logIn(this::handler);
        ofLogin = openLogin();
        if (ofLogin == null) {
            throw new IllegalStateException(LOGGED_OUT);
        }
        return ofLogin;
    }

    /** Does nothing while logged in. */
    void login(CallbackHandler given) throws LoginException {
        if (ownStore == null) {
            throw new LoginException("The provider has no store of its own to log in to. Create it with the store's"
                + " URI, or set its callback handler and load a KeyStore: the handler is asked for the PIN");
        }
        try {
            logIn(given == null ? this::handler : () -> given);
        } catch (SigningException e) {
            throw withCause(Pin.isWrong(e) || Pin.isMissing(e) ? new FailedLoginException(e.getMessage())
                                                               : new LoginException(e.getMessage()), e);
        } catch (IOException | IllegalArgumentException e) {
            throw withCause(new LoginException(e.getMessage()), e);
        }
    }

    /** Closes every store. Signatures in progress are completed. */
    void logout() {
        List<OpenStore> stores;
        StoreSession session;
        synchronized (open) {
            stores = new ArrayList<>(open);
            open.clear();
            session = login;
            login = null;
        }
        for (OpenStore store : stores) {
            store.close(LOGGED_OUT);
        }
        if (session != null) {
            session.close();
        }
    }

    /** Does nothing while logged in. */
    private void logIn(Pin.HandlerSource source) throws IOException, SigningException {
        loginLock.lock();
        try {
            synchronized (open) {
                if (login != null) {
                    return;
                }
            }
            StoreSession session = Pin.open(ownStore, source);
            synchronized (open) {
                login = session;
            }
        } finally {
            loginLock.unlock();
        }
    }

    /** The store of the login. In one step, so that a logout always finds it. Null: not logged in. */
    private OpenStore openLogin() {
        synchronized (open) {
            if (login == null) {
                return null;
            }
            OpenStore store = new OpenStore(login, true);
            open.add(store);
            return store;
        }
    }

    private OpenStore register(OpenStore store) {
        synchronized (open) {
            open.add(store);
        }
        return store;
    }

    /** As AuthProvider says: the handler that was set, or the one that the Java runtime's configuration names. */
    private CallbackHandler handler() throws IOException {
        CallbackHandler set = handler;
        String configured = Security.getProperty("auth.login.defaultCallbackHandler");
        if (set != null || configured == null || configured.isEmpty()) {
            return set;
        }
        try {
            return (CallbackHandler) Class.forName(configured, true, ClassLoader.getSystemClassLoader())
                .getConstructor().newInstance();
        } catch (ReflectiveOperationException | ClassCastException e) {
            throw new IOException("The security property auth.login.defaultCallbackHandler does not name a callback"
                + " handler: " + configured, e);
        }
    }

    private static LoginException withCause(LoginException e, Exception cause) {
        e.initCause(cause);
        return e;
    }
}
